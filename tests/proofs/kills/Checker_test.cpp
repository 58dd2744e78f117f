// The checker finds what is wrong with a history: each case spoils the sound one in histories/ in one way.
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

struct History {
  std::vector<Record> device = readHistory(ORVEL_HISTORIES "/device.jsonl");
  std::vector<Record> client = readHistory(ORVEL_HISTORIES "/client.jsonl");

  Findings check() const {
    Findings findings;
    kills::check(device, "client", client, findings);
    return findings;
  }
};

constexpr char kName[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";
constexpr auto kDevice = &History::device;
constexpr auto kClient = &History::client;
using Records = std::vector<Record> History::*;

// The ways to spoil a history. Records are told apart by kind, number and value; times are in milliseconds.
using Edit = std::function<void(History&)>;

Record& find(std::vector<Record>& all, const std::string& what, std::int64_t id, const std::string& value) {
  const auto is_it = [&](const Record& it) {
    return it.what == what && it.id == id && (value.empty() || it.value == value);
  };
  return *std::find_if(all.begin(), all.end(), is_it);
}

void insert(std::vector<Record>& all, Record record) {
  record.t *= 1000;
  const auto later = [](const Record& a, const Record& b) { return a.t < b.t; };
  all.insert(std::upper_bound(all.begin(), all.end(), record, later), record);
}

Edit add(Records side, const Record& record) {
  return [=](History& history) { insert(history.*side, record); };
}
Edit tell(std::int64_t ms, std::int64_t id, const char* value, const char* what = "notice") {
  return add(kClient, {ms, what, "", "", value, id});
}
Edit make(std::int64_t ms, const char* service, const char* key, std::int64_t process) {
  return add(kDevice, {ms, "made", service, key, "client", process, true});
}
Edit drop(Records side, const char* what, std::int64_t id, const char* value = "") {
  return [=](History& history) {
    std::vector<Record>& all = history.*side;
    all.erase(all.begin() + (&find(all, what, id, value) - all.data()));
  };
}
Edit move(Records side, const char* what, std::int64_t id, std::int64_t ms, const char* value = "") {
  return [=](History& history) {
    Record moved = find(history.*side, what, id, value);
    drop(side, what, id, value)(history);
    moved.t = ms;
    insert(history.*side, moved);
  };
}

struct Fault {
  const char* name;
  std::vector<Edit> edits;
  const char* complaint;
};
void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

class PlantedFault : public ::testing::TestWithParam<Fault> {};

TEST_P(PlantedFault, IsFoundAndNothingElse) {
  History history;
  for (const Edit& edit : GetParam().edits) edit(history);
  EXPECT_THAT(history.check().complaints, ElementsAre(HasSubstr(GetParam().complaint)));
}

const Fault kFaults[] = {
    {"Lost", {drop(kClient, "notice", 1, "kill 2")}, "property.changed (register 1) was not told kill 2"},
    {"LostDirective", {drop(kClient, "notice", 5, "2")}, "directive:client-0 (register 5) was not told 2"},
    {"Doubled", {tell(105, 1, "kill 1")}, "was told kill 1 twice"},
    {"Reordered", {move(kClient, "notice", 1, 124, "kill 1")}, "was told kill 1 twice or out of order"},
    {"WrongValue", {tell(115, 2, "7")}, "was told 7, which the device had not sent"},
    {"BeforeItWasSent",
     {move(kClient, "notice", 2, 109, "1"), tell(113, 2, "1")},
     "was told 1, which the device had not sent"},
    {"AfterRefusal", {tell(1105, 1, "kill 3")}, "was told kill 3 though the registration was not in force"},
    {"AfterGivingUp", {tell(6305, 1, "kill 5")}, "was told kill 5 though the service had been given up on"},
    {"AfterRemoval",
     {tell(128, 4, "", "unregister"), tell(129, 4, "", "unregistered")},
     "was told false though the registration had been removed"},
    {"RefusedByTheDevice", {tell(155, 5, "3")}, "was told 3 though the device had refused it"},
    {"NetworkRestored", {make(3032, kConnectivity, kNetwork, 105)}, "the network callback was restored"},
    {"NetworkStillTold", {tell(3103, 4, "true")}, "was told true though the registration was not in force"},
    {"StatusOfADeadEvent",
     {tell(4060, 22, "SUCCESS,false", "result")},
     "sendEvent (call 22) has a status though its service had died"},
    {"StatusLost", {drop(kClient, "result", 21)}, "sendEvent (call 21) has no status"},
    {"StatusDoubled", {tell(205, 21, "SUCCESS,false", "result")}, "sendEvent (call 21) has two statuses"},
    {"TwoReturns", {tell(83, 11, "", "return")}, "getDeviceName (call 11) has returned twice"},
    {"NoReturn", {drop(kClient, "return", 12)}, "getDeviceName (call 12) has never returned"},
    {"LateReturn", {move(kClient, "return", 12, 3010)}, "getDeviceName (call 12) took 2005 ms"},
    {"AnsweredAfterGivingUp",
     {drop(kClient, "return", 13), add(kClient, {6202, "return", "", "", "", 13, true})},
     "was answered though its service had been given up on"},
    {"GaveUpEarly", {move(kClient, "gaveup", 0, 5500)}, "gave up on orvel_delegate after 149 s"},
    {"ReplayedTwice", {make(2038, kDelegate, "setting:kill", 103)}, "setting:kill was made twice on one connection"},
    {"RefusedAndMadeAgain", {make(1038, kDelegate, kName, 102)}, "was refused and made again on the same connection"},
    {"NotReplayed",
     {drop(kDevice, "made", 103), drop(kDevice, "act", 11), drop(kDevice, "done", 11), drop(kClient, "notice", 2, "4")},
     "setting:kill was not made again"},
    {"ReplayedInAnotherOrder", {move(kDevice, "made", 103, 2037)}, "made again in another order"},
};

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
