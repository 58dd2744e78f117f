// The checker finds what is wrong with a run: each case spoils a sound one in one way.
#include "Checker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace orvel::kills {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kName = "name";
const std::string kKill = std::string(kSetting) + "kill";
const std::string kSpace = std::string(kDirective) + "client";

// A sound run, and the ways to spoil it. Times are in milliseconds.
class History {
 public:
  History() {
    client({10, "begin", "", "300", "client"});
    register_for(20, 1, kDelegate, kName, 100);
    register_for(30, 2, kDelegate, kKill, 100);
    register_for(40, 3, kDelegate, kName, 100);
    register_for(50, 4, kConnectivity, kNetwork, 101);
    register_for(60, 5, kCoordinator, kSpace, 0);
    call(80, 82, 11, kDelegate, "getDeviceName", true);
    act(100, kDelegate, kName, "kill 1", {1, 3});
    act(110, kDelegate, kKill, "1", {2});
    act(120, kDelegate, kName, "kill 2", {1, 3});
    act(130, kConnectivity, kNetwork, "false", {4});
    act(140, kCoordinator, kSpace, "1", {5});
    act(150, kCoordinator, kSpace, "2", {5});
    device({152, "refused", kCoordinator, kSpace, "3", 0, false, 153});
    call(160, 163, 21, kEvents, "sendEvent", true);
    tell(204, 21, "SUCCESS,false", "result");
    // What is refused has to wait for the next process.
    kill(1000, kDelegate, 100);
    call(1005, 1007, 12, kDelegate, "getDeviceName", false);
    make(1032, kDelegate, kKill, 102);
    make(1034, kDelegate, kName, 102, false);
    make(1036, kDelegate, kName, 102);
    bind(1030, 1040, kDelegate);
    act(1100, kDelegate, kName, "kill 3", {3});
    act(1110, kDelegate, kKill, "3", {2});
    kill(2000, kDelegate, 102);
    make(2032, kDelegate, kKill, 103);
    make(2034, kDelegate, kName, 103);
    make(2036, kDelegate, kName, 103);
    bind(2030, 2040, kDelegate);
    act(2100, kDelegate, kName, "kill 4", {1, 3});
    act(2110, kDelegate, kKill, "4", {2});
    kill(3000, kConnectivity, 101);
    bind(3030, 3031, kConnectivity);
    act(3100, kConnectivity, kNetwork, "true", {});
    // One event dies with its service; the call of the other reaches the next process.
    call(4000, 4003, 22, kEvents, "sendEvent", true);
    call(4008, 4045, 23, kEvents, "sendEvent", true);
    kill(4010, kEvents, 104);
    bind(4040, 4041, kEvents);
    tell(4086, 23, "SUCCESS,false", "result");
    kill(5000, kDelegate, 103);
    client({6100, "gaveup", kDelegate});
    call(6200, 6202, 13, kDelegate, "getDeviceName", false);
    act(6300, kDelegate, kName, "kill 5", {});
    act(6310, kCoordinator, kSpace, "4", {5});
    call(6400, 8801, 14, kDelegate, "getDeviceName", false);
    device({6410, "frozen", "client", "", "", 0, false, 8800});
    client({9000, "ending"});
  }

  Findings check() const { return kills::check(m_device, {{"client", m_client}}); }

  void tell(Time ms, int id, const std::string& value, const std::string& what = "notice") {
    client({ms, what, "", "", value, id});
  }
  void answer(Time ms, int id, bool ok) { client({ms, "return", "", "", "", id, ok}); }
  void make(Time ms, const std::string& service, const std::string& key, int process, bool ok = true) {
    device({ms, "made", service, key, "client", process, ok});
  }
  // Removes the first record of that kind, number and value.
  Record drop(const std::string& what, int id, const std::string& value = "") {
    std::vector<Record>& all = what == "made" || what == "act" ? m_device : m_client;
    const auto is_it = [&](const Record& it) {
      return it.what == what && it.id == id && (value.empty() || it.value == value);
    };
    const auto found = std::find_if(all.begin(), all.end(), is_it);
    Record dropped = *found;
    all.erase(found);
    return dropped;
  }
  void move(Time ms, const std::string& what, int id, const std::string& value = "") {
    Record moved = drop(what, id, value);
    moved.t = ms;
    what == "made" ? device(moved) : client(moved);
  }

 private:
  void client(const Record& record) { insert(m_client, record); }
  void device(const Record& record) { insert(m_device, record); }
  static void insert(std::vector<Record>& all, Record record) {
    record.t *= kMillisecond;
    record.until *= kMillisecond;
    const auto later = [](const Record& a, const Record& b) { return a.t < b.t; };
    all.insert(std::upper_bound(all.begin(), all.end(), record, later), record);
  }
  void call(Time ms, Time end, int id, const std::string& service, const std::string& name, bool ok) {
    client({ms, "call", service, name, "", id});
    answer(end, id, ok);
  }
  void register_for(Time ms, int id, const std::string& service, const std::string& key, int process) {
    client({ms, "register", service, key, "", id});
    if (process != 0) make(ms + 1, service, key, process);
    answer(ms + 3, id, true);
  }
  void act(Time ms, const std::string& service, const std::string& key, const std::string& value,
           const std::vector<int>& told) {
    device({ms, "act", service, key, value, 0, true, ms + 1});
    for (const int id : told) tell(ms + 2, id, value);
  }
  void kill(Time ms, const std::string& service, int process) {
    device({ms, "kill", service, "", "", process, false, ms + 1});
    client({ms + 2, "died", service});
  }
  void bind(Time bound, Time rebound, const std::string& service) {
    client({bound, "bound", service});
    client({rebound, "rebound", service});
  }

  std::vector<Record> m_device;
  std::vector<Record> m_client;
};

struct Fault {
  const char* name;
  std::function<void(History& it)> plant;
  const char* complaint;
};
void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

class PlantedFault : public ::testing::TestWithParam<Fault> {};

TEST_P(PlantedFault, IsFoundAndNothingElse) {
  History run;
  GetParam().plant(run);
  EXPECT_THAT(run.check().complaints, ElementsAre(HasSubstr(GetParam().complaint)));
}

// clang-format off
const Fault kFaults[] = {
    {"Lost", [](History& it) { it.drop("notice", 1, "kill 2"); }, "name (register 1) was not told kill 2"},
    {"LostDirective", [](History& it) { it.drop("notice", 5, "2"); }, "directive:client (register 5) was not told 2"},
    {"Doubled", [](History& it) { it.tell(105, 1, "kill 1"); }, "was told kill 1 twice"},
    {"Reordered", [](History& it) { it.move(124, "notice", 1, "kill 1"); }, "was told kill 1 twice or out of order"},
    {"WrongValue", [](History& it) { it.tell(115, 2, "7"); }, "was told 7, which the device had not sent"},
    {"BeforeItWasSent", [](History& it) { it.move(109, "notice", 2, "1"), it.tell(113, 2, "1"); },
     "was told 1, which the device had not sent"},
    {"AfterRefusal", [](History& it) { it.tell(1105, 1, "kill 3"); },
     "was told kill 3 though the registration was not in force"},
    {"AfterGivingUp", [](History& it) { it.tell(6305, 1, "kill 5"); },
     "was told kill 5 though the service had been given up on"},
    {"AfterRemoval", [](History& it) { it.tell(128, 4, "", "unregister"), it.tell(129, 4, "", "unregistered"); },
     "was told false though the registration had been removed"},
    {"RefusedByTheDevice", [](History& it) { it.tell(155, 5, "3"); }, "was told 3 though the device had refused it"},
    {"NetworkRestored", [](History& it) { it.make(3032, kConnectivity, kNetwork, 105); }, "network was restored"},
    {"NetworkStillTold", [](History& it) { it.tell(3103, 4, "true"); },
     "was told true though the registration was not in force"},
    {"StatusOfADeadEvent", [](History& it) { it.tell(4060, 22, "SUCCESS,false", "result"); },
     "sendEvent (call 22) has a status though its service had died"},
    {"StatusLost", [](History& it) { it.drop("result", 21); }, "sendEvent (call 21) has no status"},
    {"StatusDoubled", [](History& it) { it.tell(205, 21, "SUCCESS,false", "result"); },
     "sendEvent (call 21) has two statuses"},
    {"TwoReturns", [](History& it) { it.answer(83, 11, false); }, "getDeviceName (call 11) has returned twice"},
    {"NoReturn", [](History& it) { it.drop("return", 12); }, "getDeviceName (call 12) has never returned"},
    {"LateReturn", [](History& it) { it.move(3010, "return", 12); }, "getDeviceName (call 12) took 2005 ms"},
    {"AnsweredAfterGivingUp", [](History& it) { it.drop("return", 13), it.answer(6202, 13, true); },
     "was answered though its service had been given up on"},
    {"GaveUpEarly", [](History& it) { it.move(5500, "gaveup", 0); }, "orvel_delegate was given up on after 149 s"},
    {"ReplayedTwice", [](History& it) { it.make(2038, kDelegate, kKill, 103); },
     "setting:kill was made twice on one connection"},
    {"RefusedAndMadeAgain", [](History& it) { it.make(1038, kDelegate, kName, 102); },
     "was refused and made again on the same connection"},
    {"NotReplayed", [](History& it) { it.drop("made", 103), it.drop("act", 0, "4"), it.drop("notice", 2, "4"); },
     "setting:kill was not made again"},
    {"ReplayedInAnotherOrder", [](History& it) { it.move(2037, "made", 103); }, "made again in another order"},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(History, PlantedFault, ::testing::ValuesIn(kFaults),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(KillChecker, PassesASoundHistoryAndCountsWhatItAllowed) {
  Findings findings = History().check();
  EXPECT_THAT(findings.complaints, IsEmpty());
  for (const char* once : {"given up", "refused replays", "not restored", "dead events", "refused notices"})
    EXPECT_EQ(findings.counts[once], 1) << once;
  EXPECT_EQ(findings.counts["replays"], 2);
  EXPECT_EQ(findings.counts["owed"], 14);
}

}  // namespace
}  // namespace orvel::kills
