#include "Checker.h"

#include <algorithm>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include "Keys.h"

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

// One process of a service.
struct Life {
  Span killed;
};

struct Act {
  Span span;
  std::string who;
  std::string key;
  std::string value;
  bool obeyed = false;
  bool refused = false;
};

// A registration as the device saw it.
struct Made {
  Time t;
  std::string who;
  std::string key;
  std::size_t life;
  bool ok;
};

// A notice that did not get out, or that nobody has answered.
struct Undelivered {
  Time t;
  std::string key;
  std::string value;
};

bool isSetting(const std::string& key) {
  return key.rfind(kSettingPrefix, 0) == 0;
}

// What the device's history says, in the order of the questions.
class Device {
 public:
  explicit Device(std::vector<Record> records) {
    std::stable_sort(records.begin(), records.end(), [](const Record& a, const Record& b) { return a.t < b.t; });
    std::map<std::int64_t, std::size_t> running;  // lives by process
    std::map<std::int64_t, std::size_t> acts;
    const auto lifeOf = [&](std::int64_t process) {
      const auto [found, isNew] = running.emplace(process, m_lives.size());
      if (isNew) m_lives.emplace_back();
      return found->second;
    };
    for (const Record& record : records) {
      if (record.what == "limits") m_eventDelay = std::stoll(record.value) * kMillisecond;
      if (record.what == "kill") {
        m_lives[lifeOf(record.id)].killed.begin = record.t;
        m_kills[record.who].push_back({record.t, kNever});
      }
      if (record.what == "killed") {
        m_lives[lifeOf(record.id)].killed.end = record.t;
        m_kills[record.who].back().end = record.t;
        running.erase(record.id);
      }
      if (record.what == "act") {
        acts[record.id] = m_acts.size();
        m_actsByKey[{record.who, record.key}].push_back(m_acts.size());
        m_acts.push_back({{record.t, kNever}, record.who, record.key, record.value, false, false});
      }
      if (record.what == "done") {
        Act& act = m_acts.at(acts.at(record.id));
        act.span.end = record.t;
        act.obeyed = record.ok;
        act.refused = record.value == "refused";
      }
      if (record.what == "made") {
        m_made[record.value].push_back({record.t, record.who, record.key, lifeOf(record.id), record.ok});
      }
      if (record.what == "undelivered") {
        m_undelivered[record.who].push_back({record.t, record.key, record.value});
      }
      if (record.what == "settled") m_settled.push_back(record.t);
      if (record.what == "frozen") m_frozen[record.who].push_back({record.t, kNever});
      if (record.what == "thawed") m_frozen[record.who].back().end = record.t;
    }
  }

  // Those that are about any of the keys, in their order.
  std::vector<const Act*> actsFor(const std::string& service, const std::vector<std::string>& keys) const {
    std::vector<const Act*> acts;
    for (const std::string& key : keys) {
      const auto found = m_actsByKey.find({service, key});
      if (found == m_actsByKey.end()) continue;
      for (const std::size_t number : found->second) acts.push_back(&m_acts[number]);
    }
    std::sort(acts.begin(), acts.end());
    return acts;
  }

  const Life& life(std::size_t number) const { return m_lives[number]; }
  Time eventDelay() const { return m_eventDelay; }
  const std::vector<Made>& madeBy(const std::string& client) const { return of(m_made, client); }
  const std::vector<Undelivered>& undeliveredTo(const std::string& client) const { return of(m_undelivered, client); }

  // Whether a process of the service died, or may have, in that time.
  bool died(const std::string& service, Time begin, Time end) const {
    const std::vector<Span>& kills = of(m_kills, service);
    const auto first =
        std::lower_bound(kills.begin(), kills.end(), begin, [](const Span& kill, Time t) { return kill.end < t; });
    return first != kills.end() && first->begin <= end;
  }

  // Whether a process of the service died that lived at `begin`, before `end`.
  bool surelyDied(const std::string& service, Time begin, Time end) const {
    const std::vector<Span>& kills = of(m_kills, service);
    const auto first =
        std::upper_bound(kills.begin(), kills.end(), begin, [](Time t, const Span& kill) { return t < kill.begin; });
    return first != kills.end() && first->end < end;
  }

  // When what was sent at `t` has been taken by everybody who runs.
  Time taken(Time t) const {
    const auto settled = std::upper_bound(m_settled.begin(), m_settled.end(), t);
    return settled == m_settled.end() ? t + kOnItsWay : std::min(*settled, t + kOnItsWay);
  }

  // How much of the time the client was not running.
  Time frozen(const std::string& client, const Span& span) const {
    Time sum = 0;
    for (const Span& each : of(m_frozen, client)) {
      sum += std::max<Time>(0, std::min(span.end, each.end) - std::max(span.begin, each.begin));
    }
    return sum;
  }

 private:
  template <typename Value>
  static const std::vector<Value>& of(const std::map<std::string, std::vector<Value>>& all, const std::string& name) {
    static const std::vector<Value> none;
    const auto found = all.find(name);
    return found == all.end() ? none : found->second;
  }

  std::vector<Life> m_lives;
  std::vector<Act> m_acts;
  std::map<std::pair<std::string, std::string>, std::vector<std::size_t>> m_actsByKey;  // and by service
  std::map<std::string, std::vector<Span>> m_kills;                                     // by service
  std::map<std::string, std::vector<Made>> m_made;                                      // by client, as all that follow
  std::map<std::string, std::vector<Undelivered>> m_undelivered;
  std::map<std::string, std::vector<Span>> m_frozen;
  std::vector<Time> m_settled;
  Time m_eventDelay = 0;
};

// What one registration is to be told of an act.
enum class Due { kOwed, kOpen, kWithheld };

struct Expected {
  const Act* act;
  Due due;
  const char* why;  // withheld
};

struct Told {
  Time t;
  std::string value;
};

struct Registration {
  std::int64_t id = 0;
  std::string who;
  std::vector<std::string> keys;
  Span span;  // of the call
  bool ok = false;
  Span removed;
  std::vector<Told> told;
  std::vector<const Made*> made;
};

struct Call {
  std::string who;
  std::string name;
  Span span;
  int returns = 0;
  bool ok = false;
  std::vector<std::string> results;  // of an event
};

class ClientCheck {
 public:
  ClientCheck(const Device& device, const History& history, Findings& findings)
      : m_device(device), m_name(history.name), m_records(history.client), m_findings(findings) {}

  void run() {
    read();
    checkCalls();
    checkLives();
    assign();
    checkReplays();
    for (const auto& [id, registration] : m_registrations) checkNotices(registration);
    checkEvents();
  }

 private:
  template <typename... Parts>
  void complain(const Parts&... parts) {
    std::ostringstream text;
    text << m_name << ": ";
    (text << ... << parts);
    m_findings.complaints.push_back(text.str());
  }

  // A registration that is taken back again stays gone.
  static void keepFirst(Time& time, Time t) { time = std::min(time, t); }

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
      }
      if (what == "ending") m_ending = record.t;
      if (what == "call") begin("call", record, record.key);
      if (what == "return") end("call", record);
      if (what == "send") begin("event", record, "sendEvent");
      if (what == "sent") end("event", record);
      if (what == "register") {
        Registration& registration = m_registrations[record.id];
        if (registration.keys.empty()) begin("registration", record, record.key);
        registration.id = record.id;
        registration.who = record.who;
        registration.keys.push_back(record.key);
        registration.span.begin = std::min(registration.span.begin, record.t);
      }
      if (what == "registered") {
        end("registration", record);
        m_registrations[record.id].span.end = record.t;
        m_registrations[record.id].ok = record.ok;
      }
      if (what == "unregister") keepFirst(m_registrations[record.id].removed.begin, record.t);
      if (what == "unregistered") keepFirst(m_registrations[record.id].removed.end, record.t);
      if (what == "notice") m_registrations[record.id].told.push_back({record.t, record.value});
      if (what == "result") m_calls[{"event", record.id}].results.push_back(record.value);
    }
  }

  void begin(const char* kind, const Record& record, const std::string& name) {
    Call& call = m_calls[{kind, record.id}];
    call.who = kind == std::string("event") ? kEvents : record.who;
    call.name = name + " (" + kind + " " + std::to_string(record.id) + ")";
    call.span.begin = record.t;
  }

  void end(const char* kind, const Record& record) {
    Call& call = m_calls[{kind, record.id}];
    ++call.returns;
    call.span.end = record.t;
    call.ok = record.ok;
  }

  void checkCalls() {
    for (const auto& [key, call] : m_calls) {
      ++m_findings.counts.calls;
      if (call.returns == 0 && m_cut && call.span.begin + m_limit + kSecond > m_ending) continue;
      if (call.returns != 1) {
        complain(call.name, call.returns == 0 ? " has never returned" : " has returned twice");
        continue;
      }
      const Time duration = call.span.end - call.span.begin - m_device.frozen(m_name, call.span);
      if (duration > m_limit + kSecond) {
        complain(call.name, " took ", duration / kMillisecond, " ms, the limit is ", m_limit / kMillisecond);
      }
    }
  }

  // Deaths, and services that were given up on.
  void checkLives() {
    std::map<std::string, Time> away;  // since when
    for (const Record& record : m_records) {
      if (record.what == "died") away[record.who] = record.t;
      if (record.what != "gaveup") continue;
      ++m_findings.counts.givenUp;
      m_gaveUp[record.who] = record.t;
      const auto since = away.find(record.who);
      const Time waited = record.t - (since == away.end() ? m_begin : since->second);
      if (waited * m_speed < kBindLimit) {
        complain("gave up on ", record.who, " after ", waited * m_speed / kSecond, " s");
      }
    }
    for (const auto& [key, call] : m_calls) {
      if (call.span.begin <= gaveUpOn(call.who)) continue;
      if (call.ok) complain(call.name, " was answered though its service had been given up on");
      if (call.returns == 1 && call.span.end - call.span.begin > kSecond) {
        complain(call.name, " did not fail at once though its service had been given up on");
      }
    }
    for (const Made& made : m_device.madeBy(m_name)) {
      if (made.t > gaveUpOn(made.who)) complain(made.key, " was registered though its service had been given up on");
    }
  }

  Time gaveUpOn(const std::string& service) const {
    const auto found = m_gaveUp.find(service);
    return found == m_gaveUp.end() ? kNever : found->second;
  }

  // Says which registration the device means: the one that was just being made, else the next that this process does not
  // have yet.
  void assign() {
    std::map<std::pair<std::size_t, std::string>, std::set<std::int64_t>> taken;  // by life and key
    std::map<std::pair<std::size_t, std::string>, bool> refused;
    std::map<std::string, std::vector<Registration*>> byKey;
    for (auto& [id, registration] : m_registrations) {
      for (const std::string& key : registration.keys) byKey[key].push_back(&registration);
    }
    for (const Made& made : m_device.madeBy(m_name)) {
      const auto place = std::pair(made.life, made.key);
      std::set<std::int64_t>& there = taken[place];
      Registration* found = nullptr;
      for (Registration* each : byKey[made.key]) {
        if (there.count(each->id) != 0) continue;
        const bool beingMade = made.t >= each->span.begin - kPrecision && made.t <= each->span.end;
        const bool kept = each->ok && made.t > each->span.end && made.key != kNetwork;
        if (beingMade || (kept && found == nullptr)) found = each;
        if (beingMade) break;
      }
      if (found != nullptr) {
        there.insert(found->id);
        found->made.push_back(&made);
      } else if (made.key == kNetwork) {
        complain("the network callback was restored");
      } else if (refused[place]) {
        complain(made.key, " was refused and made again on the same connection");
      } else {
        complain(made.key, " was made twice on one connection");
      }
      refused[place] = refused[place] || !made.ok;
    }
    for (const auto& [id, registration] : m_registrations) countRefused(registration);
  }

  void countRefused(const Registration& registration) {
    std::map<std::string, bool> waiting;  // by key
    for (const Made* made : registration.made) {
      if (waiting[made->key] && made->ok) ++m_findings.counts.refused;
      waiting[made->key] = !made->ok;
    }
  }

  // What each rebind of the delegate service made again. One to a process that was just ending, as a further death without
  // a further kill shows, can have made nothing.
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
    ++m_findings.counts.replays;
    std::vector<std::string> due;
    for (const bool settings : {true, false}) {
      for (const auto& [id, each] : m_registrations) {
        if (each.who != kDelegate || !each.ok || each.span.end > replay.begin) continue;
        for (const std::string& key : each.keys) {
          if (isSetting(key) == settings) due.push_back(key);
        }
      }
    }
    const std::set<std::string> known(due.begin(), due.end());  // others may be made for the first time meanwhile
    std::vector<std::string> made;
    const auto& all = m_device.madeBy(m_name);
    auto next = std::lower_bound(all.begin(), all.end(), replay.begin - kPrecision,
                                 [](const Made& each, Time t) { return each.t < t; });
    for (; next != all.end() && next->t <= replay.end; ++next) {
      if (next->who == kDelegate && known.count(next->key) != 0) made.push_back(next->key);
    }
    if (made == due) return;
    for (const std::string& key : known) {
      const auto missing = std::count(due.begin(), due.end(), key) - std::count(made.begin(), made.end(), key);
      if (missing > 0) complain(key, " was not made again after the service had been bound again");
    }
    if (std::is_permutation(made.begin(), made.end(), due.begin(), due.end())) {
      complain("registrations were made again in another order than at first");
    }
  }

  Expected expect(const Registration& registration, const Act& act) const {
    if (act.refused) return {&act, Due::kWithheld, "the device had refused it"};
    if (act.span.begin > registration.removed.end) return {&act, Due::kWithheld, "the registration had been removed"};
    if (act.span.begin > gaveUpOn(act.who) && act.who != kCoordinator) {
      return {&act, Due::kWithheld, "the service had been given up on"};
    }
    Expected expected = act.who == kCoordinator ? expectDirective(registration, act) : expectNotice(registration, act);
    const bool cut = act.span.end >= registration.removed.begin || act.span.end + kOnItsWay >= m_ending;
    if (expected.due == Due::kOwed && (cut || !act.obeyed || !registration.ok)) expected.due = Due::kOpen;
    return expected;
  }

  // A namespace belongs to the client's process, whether the coordinator lives or not; but what the client has not taken
  // yet when the coordinator dies is lost.
  Expected expectDirective(const Registration& registration, const Act& act) const {
    if (act.span.end < registration.span.begin) return {&act, Due::kWithheld, "nobody had registered"};
    const bool inTime = registration.span.end < act.span.begin;
    const bool lost = m_device.died(kCoordinator, act.span.begin, m_device.taken(act.span.end));
    return {&act, inTime && !lost ? Due::kOwed : Due::kOpen, ""};
  }

  Expected expectNotice(const Registration& registration, const Act& act) const {
    Expected expected = {&act, Due::kWithheld, "the registration was not in force"};
    auto each = std::upper_bound(registration.made.begin(), registration.made.end(), act.span.end,
                                 [](Time t, const Made* made) { return t < made->t; });
    while (each != registration.made.begin()) {
      const Made& made = **--each;
      if (made.key != act.key || !made.ok) continue;
      const Span& killed = m_device.life(made.life).killed;
      if (killed.end < act.span.begin) break;  // and so were all before
      const bool in_force = made.t + kPrecision <= act.span.begin && killed.begin > act.span.end;
      expected.due = in_force ? Due::kOwed : Due::kOpen;
      if (in_force) break;
    }
    for (const Undelivered& failed : m_device.undeliveredTo(m_name)) {
      if (expected.due != Due::kOwed || failed.key != act.key || failed.value != act.value ||
          failed.t < act.span.begin) {
        continue;
      }
      expected.due = Due::kOpen;  // of several receivers in this client, the device does not say which
    }
    return expected;
  }

  std::string nameOf(const Registration& registration) const {
    return "registration " + std::to_string(registration.id) + " (" + registration.keys.front() + ")";
  }

  void checkNotices(const Registration& registration) {
    if (registration.keys.empty())
      return complain("a notice for registration ", registration.id, ", which nobody made");
    std::vector<Expected> expected;
    for (const Act* act : m_device.actsFor(registration.who, registration.keys)) {
      if (act->span.end < registration.span.begin) continue;
      if (act->span.begin > m_ending) break;
      expected.push_back(expect(registration, *act));
      count(registration, expected.back());
    }
    // Notices of flags look alike, so which act one is about may be open for a while: each position stands for one way to
    // read the notices so far, and is the number of acts passed.
    std::set<std::size_t> positions = {0};
    std::set<std::string> seen;
    for (const Told& told : registration.told) {
      std::set<std::size_t> next;
      for (const std::size_t position : positions) {
        for (std::size_t i = position; i < expected.size() && expected[i].act->span.begin <= told.t; ++i) {
          if (expected[i].due != Due::kWithheld && expected[i].act->value == told.value) next.insert(i + 1);
          if (expected[i].due == Due::kOwed) break;
        }
      }
      if (next.empty()) next.insert(explain(registration, expected, *positions.rbegin(), told, seen));
      seen.insert(told.value);
      positions = std::move(next);
    }
    for (std::size_t i = *positions.rbegin(); i < expected.size(); ++i) {
      if (expected[i].due == Due::kOwed) complain(nameOf(registration), " was not told ", expected[i].act->value);
    }
  }

  // Says what is wrong with a notice that fits nowhere, and where to go on.
  std::size_t explain(const Registration& registration, const std::vector<Expected>& expected, std::size_t position,
                      const Told& told, const std::set<std::string>& seen) {
    const std::string name = nameOf(registration);
    const auto fits = [&](const Expected& each) {
      return each.act->value == told.value && each.act->span.begin <= told.t;
    };
    const auto from = expected.begin() + static_cast<std::ptrdiff_t>(position);
    const auto found = std::find_if(from, expected.end(), fits);
    if (found == expected.end()) {
      const bool earlier = std::any_of(expected.begin(), from, fits);
      if (!earlier) {
        complain(name, " was told ", told.value, ", which nobody had sent");
      } else if (seen.count(told.value) != 0) {
        complain(name, " was told ", told.value, " twice");
      } else {
        complain(name, " was told ", told.value, " out of order");
      }
      return position;
    }
    if (found->due == Due::kWithheld) {
      complain(name, " was told ", told.value, " though ", found->why);
      return position;
    }
    for (auto each = from; each != found; ++each) {
      const auto later = [&](const Told& other) { return other.t >= told.t && other.value == each->act->value; };
      const bool comes = std::any_of(registration.told.begin(), registration.told.end(), later);
      if (each->due == Due::kOwed && !comes) complain(name, " was not told ", each->act->value);
    }
    return static_cast<std::size_t>(found - expected.begin()) + 1;
  }

  void count(const Registration& registration, const Expected& expected) {
    Counts& counts = m_findings.counts;
    if (expected.due == Due::kOwed) ++counts.owed;
    if (expected.due == Due::kOpen) ++counts.open;
    if (expected.due != Due::kWithheld) return;
    ++counts.withheld;
    if (expected.act->refused) ++counts.undelivered;
    const bool was = !registration.made.empty() && registration.made.back()->ok;
    if (registration.who == kConnectivity && was && registration.removed.end == kNever) ++counts.notRestored;
  }

  void checkEvents() {
    for (const auto& [key, call] : m_calls) {
      if (key.first != "event" || call.returns != 1) continue;
      ++m_findings.counts.events;
      const Time due = call.span.begin + m_device.eventDelay();
      const bool dead = call.ok && m_device.surelyDied(kEvents, call.span.begin, due);
      if (dead) ++m_findings.counts.deadEvents;
      const std::string name = "event " + std::to_string(key.second);
      if (call.results.size() > 1) complain(name, " has two statuses");
      if (!call.results.empty() && call.results.front() != "SUCCESS") {
        complain(name, " came out as ", call.results.front());
      }
      if (!call.results.empty() && !call.ok) complain(name, " has a status though it was not taken");
      if (!call.results.empty() && dead) complain(name, " has a status though its service had died");
      const Time latest = call.span.end + m_device.eventDelay() + kOnItsWay;
      const bool cut = latest > m_ending || m_device.died(kEvents, call.span.begin, latest);
      if (call.ok && call.results.empty() && !cut) complain(name, " has no status");
    }
  }

  const Device& m_device;
  const std::string& m_name;
  const std::vector<Record>& m_records;
  Findings& m_findings;

  Time m_begin = 0;
  Time m_ending = kNever;
  bool m_cut = false;
  Time m_limit = 0;
  std::int64_t m_speed = 1;
  std::map<std::pair<std::string, std::int64_t>, Call> m_calls;
  std::map<std::int64_t, Registration> m_registrations;
  std::map<std::string, Time> m_gaveUp;  // by service
};

}  // namespace

Findings check(const History& history) {
  Findings findings;
  const Device device(history.device);
  findings.counts.undelivered = static_cast<std::int64_t>(device.undeliveredTo(history.name).size());
  ClientCheck(device, history, findings).run();
  return findings;
}

}  // namespace orvel::kills
