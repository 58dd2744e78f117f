#include "Checker.h"

#include <algorithm>
#include <limits>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

namespace orvel::kills {
namespace {

constexpr Time kNever = std::numeric_limits<Time>::max() / 2;  // with room for what is added to it
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

// What the device's records say, in the order of the questions.
class DeviceHistory {
 public:
  explicit DeviceHistory(std::vector<Record> records) {
    std::stable_sort(records.begin(), records.end(), [](const Record& a, const Record& b) { return a.t < b.t; });
    for (const Record& each : records) {
      if (each.what == "kill") {
        m_deaths[each.id].push_back({each.t, each.until});
        m_kills[each.who].push_back({each.t, each.until});
      }
      if (each.what == "act" || each.what == "refused") m_acts[{each.who, each.key}].push_back(each);
      if (each.what == "made") m_made[each.value].push_back(each);
    }
  }

  // Those that are about any of the keys, in their order.
  std::vector<const Record*> acts(const std::string& service, const std::vector<std::string>& keys) {
    std::vector<const Record*> found;
    for (const std::string& key : keys) {
      for (const Record& act : m_acts[{service, key}]) found.push_back(&act);
    }
    std::sort(found.begin(), found.end(), [](const Record* a, const Record* b) { return a->t < b->t; });
    return found;
  }

  const std::vector<Record>& madeBy(const std::string& process) { return m_made[process]; }

  // When the process died with which a registration was made.
  Span death(const Record& made) {
    const std::vector<Span>& all = m_deaths[made.id];  // the kernel may have used the number again
    const auto is_it = [&](const Span& each) { return each.end >= made.t; };
    const auto found = std::find_if(all.begin(), all.end(), is_it);
    return found == all.end() ? Span{} : *found;
  }

  // Whether a process of the service died, or may have, in that time.
  bool died(const std::string& service, Time begin, Time end) {
    const std::vector<Span>& all = m_kills[service];
    return std::any_of(all.begin(), all.end(), [=](const Span& it) { return it.end >= begin && it.begin <= end; });
  }

  // Whether a process of the service died that lived at `begin`, before `end`.
  bool surelyDied(const std::string& service, Time begin, Time end) {
    const std::vector<Span>& all = m_kills[service];
    return std::any_of(all.begin(), all.end(), [=](const Span& it) { return it.begin > begin && it.end < end; });
  }

 private:
  std::map<std::int64_t, std::vector<Span>> m_deaths;                         // by process
  std::map<std::string, std::vector<Span>> m_kills;                           // by service
  std::map<std::pair<std::string, std::string>, std::vector<Record>> m_acts;  // by service and key
  std::map<std::string, std::vector<Record>> m_made;                          // by client process
};

// What one registration is to be told of an act.
enum class Due { kOwed, kOpen, kWithheld };

struct Expected {
  const Record* act;
  Due due;
  const char* why = "";  // withheld
};

// What a link was told to be.
struct Told {
  explicit Told(const Record& made) : record(&made) {
    std::istringstream(made.value) >> epoch >> held >> restored >> refused;
  }
  const Record* record;
  long epoch = 0;
  long held = 0;
  long restored = 0;
  long refused = 0;
};

// A call, or a registration: that has keys.
struct Call {
  std::string who;
  std::string name;
  Span span;
  int returns = 0;
  bool ok = false;
  std::vector<std::string> results;  // of an event

  std::vector<std::string> keys;
  Span removed;
  std::vector<const Record*> told;
  std::vector<const Record*> made;
};

class ClientCheck {
 public:
  ClientCheck(DeviceHistory& device, const std::string& name, const std::vector<Record>& records, Findings& findings)
      : m_device(device), m_name(name), m_records(records), m_findings(findings) {}

  void run() {
    read();
    assign();
    checkReplays();
    for (const auto& [service, told] : m_links) checkLink(service, told);
    for (const auto& [id, call] : m_calls) {
      checkCall(call);
      if (call.name.rfind("sendEvent", 0) == 0 && call.returns == 1) checkEvent(call);
      if (!call.keys.empty()) checkNotices(call);
    }
  }

 private:
  void complain(const std::string& what, const std::string& wrong) {
    m_findings.complaints.push_back(m_name + ": " + what + wrong);
  }

  // ---- Calls, and services that were given up on ----

  void read() {
    std::map<std::string, Time> away;  // since when
    for (const Record& record : m_records) {
      const std::string& what = record.what;
      if (what == "ending") m_ending = record.t;
      if (what == "link") m_links[record.who].emplace_back(record);
      if (what == "begin") {
        m_begin = record.t;
        m_speed = std::stoll(record.key);
        m_process = record.value;
      }
      if (what == "died") away[record.who] = record.t;
      if (what == "gaveup") {
        ++m_findings.counts["given up"];
        m_gaveUp[record.who] = record.t;
        const Time waited = (record.t - std::max(away[record.who], m_begin)) * m_speed;
        if (waited < kBindLimit)
          complain(record.who, " was given up on after " + std::to_string(waited / kSecond) + " s");
      }
      if (record.id != 0) readCall(record);
    }
  }

  void readCall(const Record& record) {
    const std::string& what = record.what;
    Call& call = m_calls[record.id];
    if (what == "call" || what == "register") {
      if (call.name.empty()) call.name = record.key + " (" + what + " " + std::to_string(record.id) + ")";
      call.who = record.who;
      call.span.begin = std::min(call.span.begin, record.t);
      if (what == "register") call.keys.push_back(record.key);
    }
    if (what == "return") {
      ++call.returns;
      call.span.end = record.t;
      call.ok = record.ok;
    }
    // A registration that is taken back again stays gone.
    if (what == "unregister") call.removed.begin = std::min(call.removed.begin, record.t);
    if (what == "unregistered") call.removed.end = std::min(call.removed.end, record.t);
    if (what == "notice") call.told.push_back(&record);
    if (what == "result") call.results.push_back(record.value);
  }

  Time gaveUpOn(const std::string& service) const {
    const auto found = m_gaveUp.find(service);
    return found == m_gaveUp.end() ? kNever : found->second;
  }

  void checkCall(const Call& call) {
    ++m_findings.counts["calls"];
    const Time took = call.returns == 0 ? 0 : call.span.end - call.span.begin;
    const bool late = call.span.begin > gaveUpOn(call.who);
    if (call.returns == 0) complain(call.name, " has never returned");
    if (call.returns > 1) complain(call.name, " has returned twice");
    if (took > kCallLimit + kSecond) complain(call.name, " took " + std::to_string(took / kMillisecond) + " ms");
    if (late && call.ok) complain(call.name, " was answered though its service had been given up on");
    if (late && took > kSecond) complain(call.name, " waited though its service had been given up on");
  }

  void checkEvent(const Call& call) {
    ++m_findings.counts["events"];
    // A call that is still under way when the process dies may reach the next one.
    const bool dead = call.ok && m_device.surelyDied(kEvents, call.span.end, call.span.begin + kEventDelay);
    if (dead) ++m_findings.counts["dead events"];
    const Time latest = call.span.end + kEventDelay + kOnItsWay;
    const bool cut = latest > m_ending || m_device.died(kEvents, call.span.begin, latest);
    if (call.results.empty() && call.ok && !cut) complain(call.name, " has no status");
    if (call.results.empty()) return;
    if (call.results.size() > 1) complain(call.name, " has two statuses");
    if (call.results.front() != "SUCCESS,false") complain(call.name, " came out as " + call.results.front());
    if (!call.ok) complain(call.name, " has a status though it was not taken");
    if (dead) complain(call.name, " has a status though its service had died");
  }

  // ---- What was registered with the device ----

  // Says which registration the device means: the one that was just being made, else the next that this process does
  // not have yet.
  void assign() {
    using Place = std::tuple<std::int64_t, Time, std::string>;  // a process, until its death, and a key
    std::map<Place, std::set<const Call*>> taken;
    std::map<std::string, std::vector<Call*>> byKey;
    for (auto& [id, call] : m_calls) {
      for (const std::string& key : call.keys) byKey[key].push_back(&call);
    }
    for (const Record& made : m_device.madeBy(m_process)) {
      const Place place(made.id, m_device.death(made).begin, made.key);
      Call* found = nullptr;
      for (Call* each : byKey[made.key]) {
        if (taken[place].count(each) != 0) continue;
        const bool beingMade = made.t >= each->span.begin - kPrecision && made.t <= each->span.end;
        const bool kept = each->ok && made.t > each->span.end && made.key != kNetwork;
        if (beingMade || (kept && found == nullptr)) found = each;
        if (beingMade) break;
      }
      if (found == nullptr) {
        complain(made.key, made.key == kNetwork ? " was restored" : " was made twice on one connection");
      } else {
        taken[place].insert(found);
        const auto isSame = [&](const Record* before) { return before->key == made.key; };
        const auto last = std::find_if(found->made.rbegin(), found->made.rend(), isSame);
        if (last != found->made.rend() && !(*last)->ok && made.ok) ++m_findings.counts["refused replays"];
        found->made.push_back(&made);
      }
      if (made.t > gaveUpOn(made.who)) complain(made.key, " was registered though its service had been given up on");
    }
  }

  // What each rebind of the delegate service made again. One to a process that was just ending, as a further death
  // without a further kill shows, can have made nothing.
  void checkReplays() {
    Span replay;  // the latest
    for (const Record& record : m_records) {
      if (record.who == kDelegate && record.what == "bound") replay = {record.t, kNever};
      if (record.who == kDelegate && record.what == "rebound") replay.end = record.t;
      const bool isDeath = record.who == kDelegate && record.what == "died";
      if (replay.end == kNever || !(isDeath || record.what == "ending")) continue;
      const bool wasEnding = isDeath && !m_device.died(kDelegate, replay.begin, record.t);
      if (!wasEnding && !m_device.died(kDelegate, replay.begin, replay.end)) checkReplay(replay, record.t);
      replay = {};
    }
  }

  void checkReplay(const Span& replay, Time until) {
    ++m_findings.counts["replays"];
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
    long refused = 0;
    for (const Record& each : m_device.madeBy(m_process)) {
      const bool inTime = each.t >= replay.begin - kPrecision && each.t <= replay.end;
      if (!inTime || each.who != kDelegate || known.count(each.key) == 0) continue;
      made.push_back(each.key);
      if (!each.ok) ++refused;
    }
    for (const std::string& key : known) {
      if (std::count(due.begin(), due.end(), key) > std::count(made.begin(), made.end(), key))
        complain(key, " was not made again after the service had been bound again");
    }
    if (made != due && std::is_permutation(made.begin(), made.end(), due.begin(), due.end()))
      complain("registrations", " were made again in another order than at first");
    if (made.size() == due.size()) checkNumbers(replay, until, static_cast<long>(due.size()), refused);
  }

  // Of the link that is up behind the replay, and before `until`.
  void checkNumbers(const Span& replay, Time until, long due, long refused) {
    const std::vector<Told>& told = m_links[kDelegate];
    const auto is_it = [&](const Told& each) { return each.record->key == "up" && each.record->t >= replay.end; };
    const auto up = std::find_if(told.begin(), told.end(), is_it);
    if (up == told.end() || up->record->t > until) return;
    long more = 0;  // registrations that were made meanwhile, or of which the client has a part
    for (const auto& [id, each] : m_calls) {
      const bool counted = each.ok && each.span.end <= replay.begin;
      if (each.who == kDelegate && !counted && each.span.begin <= up->record->t)
        more += static_cast<long>(each.keys.size());
    }
    const auto fits = [=](long number) { return number >= due && number <= due + more; };
    if (!fits(up->held) || !fits(up->restored + up->refused) || (more == 0 && up->refused != refused))
      complain("link", " has the numbers " + up->record->value + " and not those of the device");
  }

  // ---- Links ----

  void checkLink(const std::string& service, const std::vector<Told>& all) {
    const Told* before = nullptr;
    for (const Told& told : all) {
      const std::string wrong = before == nullptr ? "" : mistake(service, *before, told);
      if (!wrong.empty()) return complain(service, wrong);
      if (told.record->key == "up" && told.epoch > 1) ++m_findings.counts["links"];
      before = &told;
    }
    if (before != nullptr && m_device.surelyDied(service, lastUp(all), m_ending - kOnItsWay))
      complain(service, " was not told to be away when it had died");
  }

  // When the link came up that is up until the client ends; then when it is not.
  Time lastUp(const std::vector<Told>& all) const {
    Time up = m_ending;
    for (const Told& told : all) {
      if (told.record->t < m_ending) up = told.record->key == "up" ? told.record->t : m_ending;
    }
    return up;
  }

  std::string mistake(const std::string& service, const Told& before, const Told& told) {
    const std::string& was = before.record->key;
    const std::string& is = told.record->key;
    const Time t = told.record->t;
    const std::set<std::pair<std::string, std::string>> known = {
        {"stopped", "up"}, {"stopped", "given up"}, {"up", "away"}, {"away", "up"}, {"away", "given up"}};
    if (t < m_ending ? known.count({was, is}) == 0 : is != "stopped")
      return " was told to be " + is + " after being " + was;
    if (is != "stopped" && told.epoch != before.epoch + (is == "up" ? 1 : 0))
      return " was told to be " + is + " in epoch " + std::to_string(told.epoch) + " after " +
             std::to_string(before.epoch);
    // A client may have come back to a process that was just ending.
    const Time since = before.record->t - (t - before.record->t < kSecond ? kSecond : 0);
    if (is == "away" && !m_device.died(service, since, t)) return " was told to be away though nothing had killed it";
    if (is == "away" && service == kConnectivity && !told.record->ok && networkWasInForce(before.record->t, t))
      return " did not say that the network was lost";
    if (was != "away" || is != "up" || service == kCoordinator) return "";
    for (const Record& record : m_records) {
      const bool early = record.what == "notice" && record.t > before.record->t && record.t < t;
      if (early && m_calls[record.id].who == service) return " told " + record.value + " before its link was up";
    }
    return "";
  }

  bool networkWasInForce(Time up, Time away) const {
    const Call* newest = nullptr;
    for (const auto& [id, call] : m_calls) {
      if (call.keys == std::vector<std::string>{kNetwork} && call.span.begin < away) newest = &call;
    }
    return newest != nullptr && newest->span.begin > up && newest->span.end < away && newest->removed.begin > away &&
           !newest->made.empty() && newest->made.back()->ok;
  }

  // ---- What registrations were told ----

  Expected expect(const Call& registration, const Record& act) {
    if (act.what == "refused") return {&act, Due::kWithheld, "the device had refused it"};
    if (act.t > registration.removed.end) return {&act, Due::kWithheld, "the registration had been removed"};
    if (act.t > gaveUpOn(act.who) && act.who != kCoordinator)
      return {&act, Due::kWithheld, "the service had been given up on"};
    Expected expected = act.who == kCoordinator ? expectDirective(registration, act) : expectNotice(registration, act);
    const bool cut = act.until >= registration.removed.begin || act.until + kOnItsWay >= m_ending;
    if (expected.due == Due::kOwed && (cut || !act.ok || !registration.ok)) expected.due = Due::kOpen;
    return expected;
  }

  // A namespace belongs to the client's process, whether the coordinator lives or not; but what the client has not
  // taken yet when the coordinator dies is lost.
  Expected expectDirective(const Call& registration, const Record& act) {
    const bool inTime = registration.span.end < act.t;
    const bool lost = m_device.died(kCoordinator, act.t, act.until + kOnItsWay);
    return {&act, inTime && !lost ? Due::kOwed : Due::kOpen};
  }

  Expected expectNotice(const Call& registration, const Record& act) {
    Expected expected = {&act, Due::kWithheld, "the registration was not in force"};
    const auto later = [](Time t, const Record* made) { return t < made->t; };
    auto each = std::upper_bound(registration.made.begin(), registration.made.end(), act.until, later);
    while (each != registration.made.begin()) {
      const Record& made = **--each;
      if (made.key != act.key || !made.ok) continue;
      const Span death = m_device.death(made);
      if (death.end < act.t) break;  // and so were all before
      const bool inForce = made.t + kPrecision <= act.t && death.begin > act.until;
      expected.due = inForce ? Due::kOwed : Due::kOpen;
      if (inForce) break;
    }
    return expected;
  }

  void checkNotices(const Call& registration) {
    std::vector<Expected> expected;
    for (const Record* act : m_device.acts(registration.who, registration.keys)) {
      if (act->until < registration.span.begin || act->t > m_ending) continue;
      expected.push_back(expect(registration, *act));
      count(registration, expected.back());
    }
    // Notices of flags look alike, so which act one is about may be open for a while: each position stands for one
    // way to read the notices so far, and is the number of acts passed.
    std::set<std::size_t> positions = {0};
    for (const Record* told : registration.told) {
      std::set<std::size_t> next;
      for (const std::size_t position : positions) {
        for (std::size_t i = position; i < expected.size() && expected[i].act->t <= told->t; ++i) {
          if (expected[i].due != Due::kWithheld && expected[i].act->value == told->value) next.insert(i + 1);
          if (expected[i].due == Due::kOwed) break;
        }
      }
      if (next.empty()) return complain(registration.name, mistake(expected, *positions.rbegin(), *told));
      positions = std::move(next);
    }
    const auto first = expected.begin() + static_cast<std::ptrdiff_t>(*positions.rbegin());
    const auto missing = std::find_if(first, expected.end(), [](const Expected& it) { return it.due == Due::kOwed; });
    if (missing != expected.end()) complain(registration.name, " was not told " + missing->act->value);
  }

  // What is wrong with a notice that does not fit.
  static std::string mistake(const std::vector<Expected>& expected, std::size_t position, const Record& told) {
    const auto fits = [&](const Expected& each) { return each.act->value == told.value && each.act->t <= told.t; };
    const auto from = expected.begin() + static_cast<std::ptrdiff_t>(position);
    const auto found = std::find_if(from, expected.end(), fits);
    if (found == expected.end()) {
      const bool before = std::any_of(expected.begin(), from, fits);
      return " was told " + told.value + (before ? " twice" : ", which the device had not sent");
    }
    if (found->due == Due::kWithheld) return " was told " + told.value + " though " + found->why;
    const auto missing = std::find_if(from, found, [](const Expected& it) { return it.due == Due::kOwed; });
    return " was not told " + missing->act->value + " before " + told.value;
  }

  void count(const Call& registration, const Expected& expected) {
    ++m_findings.counts[expected.due == Due::kOwed ? "owed" : expected.due == Due::kOpen ? "open" : "withheld"];
    if (expected.due != Due::kWithheld) return;
    if (expected.act->what == "refused") ++m_findings.counts["refused notices"];
    const bool was = !registration.made.empty() && registration.made.back()->ok;
    if (registration.who == kConnectivity && was && registration.removed.end == kNever)
      ++m_findings.counts["not restored"];
  }

  DeviceHistory& m_device;
  const std::string& m_name;
  const std::vector<Record>& m_records;
  Findings& m_findings;

  std::string m_process;
  Time m_begin = 0;
  Time m_ending = kNever;
  std::int64_t m_speed = 1;
  std::map<std::int64_t, Call> m_calls;
  std::map<std::string, Time> m_gaveUp;  // by service
  std::map<std::string, std::vector<Told>> m_links;
};

}  // namespace

Findings check(std::vector<Record> device, const std::map<std::string, std::vector<Record>>& clients) {
  DeviceHistory history(std::move(device));
  Findings findings;
  for (const auto& [name, records] : clients) ClientCheck(history, name, records, findings).run();
  return findings;
}

}  // namespace orvel::kills
