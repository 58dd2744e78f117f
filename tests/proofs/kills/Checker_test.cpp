// The checker finds what is wrong with a run: each case spoils the sound one of sound.jsonl in one way.
#include "Checker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace orvel::kills {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// A sound run, and the ways to spoil it. Times are in milliseconds.
class History {
 public:
  History() {
    std::ifstream lines(ORVEL_SOUND_RUN);
    for (std::string line; std::getline(lines, line);) insert(nlohmann::json::parse(line).get<Record>());
  }

  Findings check() const { return kills::check(m_device, {{"client", m_client}}); }

  void tell(Time ms, int id, const std::string& value, const std::string& what = "notice") {
    insert({ms, what, "", "", value, id});
  }
  void answer(Time ms, int id, bool ok) { insert({ms, "return", "", "", "", id, ok}); }
  void make(Time ms, const std::string& service, const std::string& key, int process) {
    insert({ms, "made", service, key, "client", process, true});
  }
  void link(Time ms, const std::string& service, const std::string& state, const std::string& numbers) {
    insert({ms, "link", service, state, numbers});
  }
  // Removes the first record of that kind, number and value; of a link, of the service and its state.
  Record drop(const std::string& what, int id, const std::string& value = "") {
    std::vector<Record>& all = recordsWith(what);
    const auto is_it = [&](const Record& it) {
      return it.what == what && it.id == id && (value.empty() || it.value == value || it.who + " " + it.key == value);
    };
    const auto found = std::find_if(all.begin(), all.end(), is_it);
    Record dropped = *found;
    all.erase(found);
    return dropped;
  }
  void move(Time ms, const std::string& what, int id, const std::string& value = "") {
    Record moved = drop(what, id, value);
    moved.t = ms;
    insert(moved);
  }

 private:
  std::vector<Record>& recordsWith(const std::string& what) {
    const std::set<std::string> device = {"kill", "act", "refused", "made"};
    return device.count(what) != 0 ? m_device : m_client;
  }
  void insert(Record record) {
    record.t *= kMillisecond;
    record.until *= kMillisecond;
    std::vector<Record>& all = recordsWith(record.what);
    const auto later = [](const Record& a, const Record& b) { return a.t < b.t; };
    all.insert(std::upper_bound(all.begin(), all.end(), record, later), record);
  }

  std::vector<Record> m_device;
  std::vector<Record> m_client;
};

const std::string kAway = std::string(kDelegate) + " away";
const std::string kUp = std::string(kDelegate) + " up";

struct Fault {
  const char* name;
  std::function<void(History& it)> plant;
  const char* complaint;
};
// clang-format off
const Fault kFaults[] = {
    {"Lost", [](History& it) { it.drop("notice", 1, "kill 2"); }, "name (register 1) was not told kill 2"},
    {"LostDirective", [](History& it) { it.drop("notice", 5, "2"); }, "directive:client (register 5) was not told 2"},
    {"Doubled", [](History& it) { it.tell(105, 1, "kill 1"); }, "was told kill 1 twice"},
    {"Reordered", [](History& it) { it.move(124, "notice", 1, "kill 1"); }, "was not told kill 1 before kill 2"},
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
    {"ReplayedTwice", [](History& it) { it.make(2038, kDelegate, "setting:kill", 103); },
     "setting:kill was made twice on one connection"},
    {"RefusedAndMadeAgain", [](History& it) { it.make(1038, kDelegate, "name", 102); },
     "name was made twice on one connection"},
    {"NotReplayed", [](History& it) { it.drop("made", 103), it.drop("act", 0, "4"), it.drop("notice", 2, "4"); },
     "setting:kill was not made again"},
    {"UpWithoutAway", [](History& it) { it.drop("link", 0, kAway); },
     "orvel_delegate was told to be up after being up"},
    {"UpUntold", [](History& it) { it.drop("link", 0, "orvel_delegate up"), it.drop("link", 0, kUp); },
     "orvel_delegate was told to be away after being stopped"},
    {"DeathUntold", [](History& it) { for (const char* state : {" away", " up", " up"})
                                        it.drop("link", 0, std::string(kEvents) + state);
                                      it.link(15, kEvents, "up", "1 0 0 0"); },
     "was not told to be away when it had died"},
    {"DeathInvented", [](History& it) { it.link(7000, kEvents, "away", "2 0 0 0");
                                        it.link(7001, kEvents, "up", "3 0 0 0"); },
     "was told to be away though nothing had killed it"},
    {"EpochSkipped", [](History& it) { it.drop("link", 0, kUp), it.link(15, kDelegate, "up", "2 0 0 0"); },
     "orvel_delegate was told to be up in epoch 2 after 0"},
    {"NumbersInvented", [](History& it) { it.drop("link", 0, "3 3 3 0"), it.link(2041, kDelegate, "up", "3 3 2 1"); },
     "link has the numbers 3 3 2 1 and not those of the device"},
    {"UpTooLate", [](History& it) { it.drop("link", 0, "2 3 2 1"), it.link(1103, kDelegate, "up", "2 3 2 1"); },
     "orvel_delegate told kill 3 before its link was up"},
    {"NetworkLossUntold", [](History& it) { it.drop("link", 0, kConnectivity + std::string(" away")),
                                            it.link(3003, kConnectivity, "away", "1 0 0 0"); },
     "did not say that the network was lost"},
    {"ReplayedInAnotherOrder", [](History& it) { it.move(2037, "made", 103); }, "made again in another order"},
};
// clang-format on

TEST(KillChecker, FindsEachPlantedFaultAndNothingElse) {
  for (const Fault& fault : kFaults) {
    History history;
    fault.plant(history);
    EXPECT_THAT(history.check().complaints, ElementsAre(HasSubstr(fault.complaint))) << fault.name;
  }
}

TEST(KillChecker, PassesASoundHistoryAndCountsWhatItAllowed) {
  Findings findings = History().check();
  EXPECT_THAT(findings.complaints, IsEmpty());
  for (const char* once : {"given up", "refused replays", "not restored", "dead events", "refused notices"})
    EXPECT_EQ(findings.counts[once], 1) << once;
  EXPECT_EQ(findings.counts["replays"], 2);
  EXPECT_EQ(findings.counts["links"], 4);
  EXPECT_EQ(findings.counts["owed"], 14);
}

}  // namespace
}  // namespace orvel::kills
