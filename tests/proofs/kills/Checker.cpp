#include "Checker.h"

#include <algorithm>
#include <limits>
#include <set>
#include <sstream>
#include <utility>

namespace orvel::kills {
namespace {

using Time = std::int64_t;  // microseconds

constexpr Time kNever = std::numeric_limits<Time>::max() / 2;  // with room for what is added to it
constexpr Time kMillisecond = 1000;
constexpr Time kSecond = 1000 * kMillisecond;
// The device dates what is registered in whole milliseconds.
constexpr Time kPrecision = kMillisecond;
// How long a message between processes may take on a busy machine; whether it has been taken is asked only after that.
constexpr Time kOnItsWay = 500 * kMillisecond;
constexpr Time kBindLimit = 300 * kSecond;

// From before something was asked for until it had happened.
struct Span {
  Time begin = kNever;
  Time end = kNever;
};

struct Act {
  Span span;
  std::string who;
  std::string key;
  std::string value;
  bool obeyed = false;
  bool refused = false;
};

// What the device's history says, in the order of the questions.
struct DeviceHistory {
  explicit DeviceHistory(std::vector<Record> records);

  // Those that are about any of the keys, in their order.
  std::vector<const Act*> actsFor(const std::string& service, const std::vector<std::string>& keys) {
    std::vector<const Act*> found;
    for (const std::string& key : keys) {
      for (const std::size_t number : actsByKey[{service, key}]) found.push_back(&acts[number]);
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  // Whether a process of the service died, or may have, in that time; or whether a client of that name stood still.
  bool died(const std::string& service, Time begin, Time end) {
    const std::vector<Span>& all = kills[service];
    const auto ended = [](const Span& kill, Time t) { return kill.end < t; };
    const auto first = std::lower_bound(all.begin(), all.end(), begin, ended);
    return first != all.end() && first->begin <= end;
  }

  // Whether a process of the service died that lived at `begin`, before `end`.
  bool surelyDied(const std::string& service, Time begin, Time end) {
    const std::vector<Span>& all = kills[service];
    const auto later = [](Time t, const Span& kill) { return t < kill.begin; };
    const auto first = std::upper_bound(all.begin(), all.end(), begin, later);
    return first != all.end() && first->end < end;
  }

  std::vector<Span> lives;  // when each process of a service was killed
  std::vector<Act> acts;
  std::map<std::pair<std::string, std::string>, std::vector<std::size_t>> actsByKey;  // and by service
  std::map<std::string, std::vector<Span>> kills;   // by service; and by client, when it stood still
  std::map<std::string, std::vector<Record>> made;  // by client process; `id` is a place in `lives`
  Time eventDelay = 0;
};

DeviceHistory::DeviceHistory(std::vector<Record> records) {
  std::stable_sort(records.begin(), records.end(), [](const Record& a, const Record& b) { return a.t < b.t; });
  std::map<std::int64_t, std::size_t> running;  // lives by process
  std::map<std::int64_t, std::size_t> byNumber;
  const auto lifeOf = [&](std::int64_t process) {
    const auto [found, isNew] = running.emplace(process, lives.size());
    if (isNew) lives.emplace_back();
    return found->second;
  };
  for (Record& record : records) {
    const std::string& what = record.what;
    if (what == "limits") eventDelay = std::stoll(record.value) * kMillisecond;
    if (what == "kill") {
      lives[lifeOf(record.id)].begin = record.t;
      kills[record.who].push_back({record.t, kNever});
    }
    if (what == "killed") {
      lives[lifeOf(record.id)].end = record.t;
      kills[record.who].back().end = record.t;
      running.erase(record.id);
    }
    if (what == "frozen") kills[record.who].push_back({record.t, kNever});
    if (what == "thawed") kills[record.who].back().end = record.t;
    if (what == "act") {
      byNumber[record.id] = acts.size();
      actsByKey[{record.who, record.key}].push_back(acts.size());
      acts.push_back({{record.t, kNever}, record.who, record.key, record.value});
    }
    if (what == "done") {
      Act& act = acts.at(byNumber.at(record.id));
      act.span.end = record.t;
      act.obeyed = record.ok;
      act.refused = record.value == "refused";
    }
    if (what == "made") {
      record.id = static_cast<std::int64_t>(lifeOf(record.id));
      made[record.value].push_back(record);
    }
  }
}

// What one registration is to be told of an act.
enum class Due { kOwed, kOpen, kWithheld };

struct Expected {
  const Act* act;
  Due due;
  const char* why = "";  // withheld
};

// A call, or a registration: that has keys.
struct Call {
  std::int64_t id = 0;
  std::string who;
  std::string name;
  Span span;
  int returns = 0;
  bool ok = false;
  std::vector<std::string> results;  // of an event

  std::vector<std::string> keys;
  Span removed;
  std::vector<Record> told;
  std::vector<const Record*> made;
};

class ClientCheck {
 public:
  ClientCheck(DeviceHistory& device, const std::string& name, const std::vector<Record>& records, Findings& findings)
      : m_device(device), m_name(name), m_records(records), m_counts(findings.counts), m_findings(findings) {}

  void run() {
    read();
    checkCalls();
    checkLives();
    assign();
    checkReplays();
    for (const auto& [id, call] : m_calls) {
      if (!call.keys.empty()) checkNotices(call);
      if (call.name.rfind("sendEvent", 0) == 0 && call.returns == 1) checkEvent(call);
    }
  }

 private:
  template <typename... Parts>
  void complain(const Parts&... parts) {
    std::ostringstream text;
    text << m_name << ": ";
    (text << ... << parts);
    m_findings.complaints.push_back(text.str());
  }

  void read() {
    // The history of a client that was killed just ends.
    m_cut = std::none_of(m_records.begin(), m_records.end(), [](const Record& each) { return each.what == "ending"; });
    if (m_cut && !m_records.empty()) m_ending = m_records.back().t;
    for (const Record& record : m_records) {
      const std::string& what = record.what;
      if (what == "begin") {
        m_limit = record.id * kMillisecond;
        m_speed = std::stoll(record.value);
        m_begin = record.t;
        m_process = record.key;
        continue;
      }
      if (what == "ending") m_ending = record.t;
      Call& call = m_calls[record.id];  // of number 0 for what is about none
      if (what == "call" || what == "register") {
        call.id = record.id;
        call.who = record.who;
        call.span.begin = std::min(call.span.begin, record.t);
        if (what == "register") call.keys.push_back(record.key);
        const std::string& name = call.keys.empty() ? record.key : call.keys.front();
        call.name = name + " (" + what + " " + std::to_string(record.id) + ")";
      }
      if (what == "return") {
        ++call.returns;
        call.span.end = record.t;
        call.ok = record.ok;
      }
      // A registration that is taken back again stays gone.
      if (what == "unregister") call.removed.begin = std::min(call.removed.begin, record.t);
      if (what == "unregistered") call.removed.end = std::min(call.removed.end, record.t);
      if (what == "notice") call.told.push_back(record);
      if (what == "result") call.results.push_back(record.value);
    }
    m_calls.erase(0);
  }

  void checkCalls() {
    for (const auto& [id, call] : m_calls) {
      ++m_counts["calls"];
      if (call.returns == 0 && m_cut) continue;
      if (call.returns != 1) {
        complain(call.name, call.returns == 0 ? " has never returned" : " has returned twice");
        continue;
      }
      const Time duration = call.span.end - call.span.begin;
      if (duration > m_limit + kSecond && !stoodStill(call))
        complain(call.name, " took ", duration / kMillisecond, " ms, the limit is ", m_limit / kMillisecond);
    }
  }

  // Whether the client did so at some time during the call.
  bool stoodStill(const Call& call) { return m_device.died(m_name, call.span.begin, call.span.end); }

  // Deaths, and services that were given up on.
  void checkLives() {
    std::map<std::string, Time> away;  // since when
    for (const Record& record : m_records) {
      if (record.what == "died") away[record.who] = record.t;
      if (record.what != "gaveup") continue;
      ++m_counts["given up"];
      m_gaveUp[record.who] = record.t;
      const Time since = away.count(record.who) == 0 ? m_begin : away[record.who];
      const Time waited = (record.t - since) * m_speed;
      if (waited < kBindLimit) complain("gave up on ", record.who, " after ", waited / kSecond, " s");
    }
    const char* const though = " though its service had been given up on";
    for (const auto& [id, call] : m_calls) {
      if (call.span.begin <= gaveUpOn(call.who)) continue;
      if (call.ok) complain(call.name, " was answered", though);
      if (call.returns == 1 && call.span.end - call.span.begin > kSecond && !stoodStill(call))
        complain(call.name, " did not fail at once", though);
    }
    for (const Record& made : m_device.made[m_process]) {
      if (made.t > gaveUpOn(made.who)) complain(made.key, " was registered", though);
    }
  }

  Time gaveUpOn(const std::string& service) const {
    const auto found = m_gaveUp.find(service);
    return found == m_gaveUp.end() ? kNever : found->second;
  }

  // Says which registration the device means: the one that was just being made, else the next that this process does
  // not have yet.
  void assign() {
    std::map<std::pair<std::int64_t, std::string>, std::set<std::int64_t>> taken;  // by life and key
    std::set<std::pair<std::int64_t, std::string>> refused;
    std::map<std::string, std::vector<Call*>> byKey;
    for (auto& [id, call] : m_calls) {
      for (const std::string& key : call.keys) byKey[key].push_back(&call);
    }
    for (const Record& made : m_device.made[m_process]) {
      const auto place = std::pair(made.id, made.key);
      Call* found = nullptr;
      for (Call* each : byKey[made.key]) {
        if (taken[place].count(each->id) != 0) continue;
        const bool beingMade = made.t >= each->span.begin - kPrecision && made.t <= each->span.end;
        const bool kept = each->ok && made.t > each->span.end && made.key != kNetwork;
        if (beingMade || (kept && found == nullptr)) found = each;
        if (beingMade) break;
      }
      if (found != nullptr) {
        taken[place].insert(found->id);
        const auto isSame = [&](const Record* before) { return before->key == made.key; };
        const auto last = std::find_if(found->made.rbegin(), found->made.rend(), isSame);
        if (last != found->made.rend() && !(*last)->ok && made.ok) ++m_counts["refused replays"];
        found->made.push_back(&made);
      } else if (made.key == kNetwork) {
        complain("the network callback was restored");
      } else {
        const bool again = refused.count(place) != 0;
        complain(made.key,
                 again ? " was refused and made again on the same connection" : " was made twice on one connection");
      }
      if (!made.ok) refused.insert(place);
    }
  }

  // What each rebind of the delegate service made again. One to a process that was just ending, as a further death
  // without a further kill shows, can have made nothing.
  void checkReplays() {
    Span replay;
    const auto judge = [&] {
      if (replay.end != kNever && !m_device.died(kDelegate, replay.begin, replay.end)) checkReplay(replay);
      replay = {};
    };
    for (const Record& record : m_records) {
      if (record.who != kDelegate) continue;
      if (record.what == "bound") replay = {record.t, kNever};
      if (record.what == "rebound") replay.end = record.t;
      if (record.what != "died") continue;
      if (m_device.died(kDelegate, replay.begin, record.t)) judge();
      replay = {};
    }
    judge();
  }

  void checkReplay(const Span& replay) {
    ++m_counts["replays"];
    std::vector<std::string> due;
    for (const bool settings : {true, false}) {
      for (const auto& [id, each] : m_calls) {
        if (each.who != kDelegate || !each.ok || each.span.end > replay.begin) continue;
        for (const std::string& key : each.keys) {
          if ((key.rfind(kSetting, 0) == 0) == settings) due.push_back(key);
        }
      }
    }
    const std::set<std::string> known(due.begin(), due.end());  // others may be made for the first time meanwhile
    std::vector<std::string> made;
    for (const Record& each : m_device.made[m_process]) {
      const bool inTime = each.t >= replay.begin - kPrecision && each.t <= replay.end;
      if (inTime && each.who == kDelegate && known.count(each.key) != 0) made.push_back(each.key);
    }
    if (made == due) return;
    for (const std::string& key : known) {
      if (std::count(due.begin(), due.end(), key) > std::count(made.begin(), made.end(), key))
        complain(key, " was not made again after the service had been bound again");
    }
    if (std::is_permutation(made.begin(), made.end(), due.begin(), due.end()))
      complain("registrations were made again in another order than at first");
  }

  Expected expect(const Call& registration, const Act& act) {
    if (act.refused) return {&act, Due::kWithheld, "the device had refused it"};
    if (act.span.begin > registration.removed.end) return {&act, Due::kWithheld, "the registration had been removed"};
    if (act.span.begin > gaveUpOn(act.who) && act.who != kCoordinator)
      return {&act, Due::kWithheld, "the service had been given up on"};
    Expected expected = act.who == kCoordinator ? expectDirective(registration, act) : expectNotice(registration, act);
    const bool cut = act.span.end >= registration.removed.begin || act.span.end + kOnItsWay >= m_ending;
    if (expected.due == Due::kOwed && (cut || !act.obeyed || !registration.ok)) expected.due = Due::kOpen;
    return expected;
  }

  // A namespace belongs to the client's process, whether the coordinator lives or not; but what the client has not
  // taken yet when the coordinator dies is lost.
  Expected expectDirective(const Call& registration, const Act& act) {
    if (act.span.end < registration.span.begin) return {&act, Due::kWithheld, "it had not been registered for"};
    const bool inTime = registration.span.end < act.span.begin;
    const bool lost = m_device.died(kCoordinator, act.span.begin, act.span.end + kOnItsWay);
    return {&act, inTime && !lost ? Due::kOwed : Due::kOpen};
  }

  Expected expectNotice(const Call& registration, const Act& act) {
    Expected expected = {&act, Due::kWithheld, "the registration was not in force"};
    const auto later = [](Time t, const Record* made) { return t < made->t; };
    auto each = std::upper_bound(registration.made.begin(), registration.made.end(), act.span.end, later);
    while (each != registration.made.begin()) {
      const Record& made = **--each;
      if (made.key != act.key || !made.ok) continue;
      const Span& killed = m_device.lives[static_cast<std::size_t>(made.id)];
      if (killed.end < act.span.begin) break;  // and so were all before
      const bool inForce = made.t + kPrecision <= act.span.begin && killed.begin > act.span.end;
      expected.due = inForce ? Due::kOwed : Due::kOpen;
      if (inForce) break;
    }
    return expected;
  }

  void checkNotices(const Call& registration) {
    std::vector<Expected> expected;
    for (const Act* act : m_device.actsFor(registration.who, registration.keys)) {
      if (act->span.end < registration.span.begin) continue;
      if (act->span.begin > m_ending) break;
      expected.push_back(expect(registration, *act));
      count(registration, expected.back());
    }
    // Notices of flags look alike, so which act one is about may be open for a while: each position stands for one
    // way to read the notices so far, and is the number of acts passed.
    std::set<std::size_t> positions = {0};
    for (const Record& told : registration.told) {
      std::set<std::size_t> next;
      for (const std::size_t position : positions) {
        for (std::size_t i = position; i < expected.size() && expected[i].act->span.begin <= told.t; ++i) {
          if (expected[i].due != Due::kWithheld && expected[i].act->value == told.value) next.insert(i + 1);
          if (expected[i].due == Due::kOwed) break;
        }
      }
      if (next.empty()) next.insert(explain(registration, expected, *positions.rbegin(), told));
      positions = std::move(next);
    }
    for (std::size_t i = *positions.rbegin(); i < expected.size(); ++i) {
      if (expected[i].due == Due::kOwed) complain(registration.name, " was not told ", expected[i].act->value);
    }
  }

  // Says what is wrong with a notice that fits nowhere, and where to go on.
  std::size_t explain(const Call& registration, const std::vector<Expected>& expected, std::size_t position,
                      const Record& told) {
    const auto fits = [&](const Expected& each) {
      return each.act->value == told.value && each.act->span.begin <= told.t;
    };
    const auto from = expected.begin() + static_cast<std::ptrdiff_t>(position);
    const auto found = std::find_if(from, expected.end(), fits);
    if (found == expected.end() || found->due == Due::kWithheld) {
      const bool earlier = std::any_of(expected.begin(), from, fits);
      complain(registration.name, " was told ", told.value,
               found != expected.end() ? std::string(" though ") + found->why
               : earlier               ? " twice or out of order"
                                       : ", which the device had not sent");
      return position;
    }
    for (auto each = from; each != found; ++each) {
      const auto later = [&](const Record& other) { return other.t >= told.t && other.value == each->act->value; };
      const bool comes = std::any_of(registration.told.begin(), registration.told.end(), later);
      if (each->due == Due::kOwed && !comes) complain(registration.name, " was not told ", each->act->value);
    }
    return static_cast<std::size_t>(found - expected.begin()) + 1;
  }

  void count(const Call& registration, const Expected& expected) {
    ++m_counts[expected.due == Due::kOwed ? "owed" : expected.due == Due::kOpen ? "open" : "withheld"];
    if (expected.due != Due::kWithheld) return;
    if (expected.act->refused) ++m_counts["refused notices"];
    const bool was = !registration.made.empty() && registration.made.back()->ok;
    if (registration.who == kConnectivity && was && registration.removed.end == kNever) ++m_counts["not restored"];
  }

  void checkEvent(const Call& call) {
    ++m_counts["events"];
    // A call that is still under way when the process dies may reach the next one.
    const bool dead = call.ok && m_device.surelyDied(kEvents, call.span.end, call.span.begin + m_device.eventDelay);
    if (dead) ++m_counts["dead events"];
    const Time latest = call.span.end + m_device.eventDelay + kOnItsWay;
    const bool cut = latest > m_ending || m_device.died(kEvents, call.span.begin, latest);
    if (call.results.empty() && call.ok && !cut) complain(call.name, " has no status");
    if (call.results.empty()) return;
    if (call.results.size() > 1) complain(call.name, " has two statuses");
    if (call.results.front() != "SUCCESS,false") complain(call.name, " came out as ", call.results.front());
    if (!call.ok) complain(call.name, " has a status though it was not taken");
    if (dead) complain(call.name, " has a status though its service had died");
  }

  DeviceHistory& m_device;
  const std::string& m_name;
  const std::vector<Record>& m_records;
  std::map<std::string, std::int64_t>& m_counts;
  Findings& m_findings;

  std::string m_process;
  Time m_begin = 0;
  Time m_ending = kNever;
  bool m_cut = false;
  Time m_limit = 0;
  std::int64_t m_speed = 1;
  std::map<std::int64_t, Call> m_calls;
  std::map<std::string, Time> m_gaveUp;  // by service
};

}  // namespace

void check(const std::vector<Record>& device, const std::string& name, const std::vector<Record>& client,
           Findings& findings) {
  DeviceHistory history(device);
  ClientCheck(history, name, client, findings).run();
}

}  // namespace orvel::kills
