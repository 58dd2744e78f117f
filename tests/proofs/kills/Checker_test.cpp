// The checker finds what is wrong with a history: each case spoils the sound one in histories/ in one way.
#include "Checker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <ostream>

namespace orvel::kills {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::int64_t kMs = 1000;
constexpr char kDelegate[] = "orvel_delegate";
constexpr char kName[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";

History soundHistory() {
  const std::string folder = ORVEL_HISTORIES;
  return {readHistory(folder + "/device.jsonl"), "client", readHistory(folder + "/client.jsonl")};
}

Record& find(std::vector<Record>& records, const std::string& what, std::int64_t id, const std::string& value = "") {
  return *std::find_if(records.begin(), records.end(), [&](const Record& each) {
    return each.what == what && each.id == id && (value.empty() || each.value == value);
  });
}

void drop(std::vector<Record>& records, const Record& record) {
  records.erase(records.begin() + (&record - records.data()));
}

// Keeps the order of the times.
void add(std::vector<Record>& records, const Record& record) {
  const auto later = [](const Record& a, const Record& b) { return a.t < b.t; };
  records.insert(std::upper_bound(records.begin(), records.end(), record, later), record);
}

Record notice(std::int64_t ms, std::int64_t id, const char* value) {
  return {ms * kMs, "notice", "", "", value, id, false};
}
Record made(std::int64_t ms, const char* service, const char* key, std::int64_t process) {
  return {ms * kMs, "made", service, key, "client", process, true};
}

TEST(KillChecker, PassesASoundHistoryAndCountsWhatItAllowed) {
  const Findings findings = check(soundHistory());
  EXPECT_THAT(findings.complaints, IsEmpty());
  const Counts& counts = findings.counts;
  EXPECT_EQ(counts.givenUp, 1);
  EXPECT_EQ(counts.refused, 1);
  EXPECT_EQ(counts.notRestored, 1);
  EXPECT_EQ(counts.deadEvents, 1);
  EXPECT_EQ(counts.undelivered, 1);
  EXPECT_EQ(counts.replays, 2);
  EXPECT_EQ(counts.owed, 14);
}

struct Fault {
  const char* name;
  std::function<void(History&)> plant;
  const char* complaint;
};
void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

class PlantedFault : public ::testing::TestWithParam<Fault> {};

TEST_P(PlantedFault, IsFoundAndNothingElse) {
  History history = soundHistory();
  GetParam().plant(history);
  EXPECT_THAT(check(history).complaints, ElementsAre(HasSubstr(GetParam().complaint)));
}

// clang-format off
const Fault kFaults[] = {
    {"Lost", [](History& h) { drop(h.client, find(h.client, "notice", 1, "kill 2")); }, "registration 1 (com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed) was not told kill 2"},
    {"LostDirective", [](History& h) { drop(h.client, find(h.client, "notice", 5, "2")); }, "registration 5 (directive:client-0) was not told 2"},
    {"Doubled", [](History& h) { add(h.client, notice(105, 1, "kill 1")); }, "was told kill 1 twice"},
    {"Reordered", [](History& h) { std::swap(find(h.client, "notice", 1, "kill 1").value, find(h.client, "notice", 1, "kill 2").value); find(h.client, "notice", 1, "kill 2").t = 123 * kMs; find(h.client, "notice", 1, "kill 1").t = 124 * kMs; std::stable_sort(h.client.begin(), h.client.end(), [](const Record& a, const Record& b) { return a.t < b.t; }); }, "was told kill 1 out of order"},
    {"WrongValue", [](History& h) { add(h.client, notice(115, 2, "7")); }, "was told 7, which nobody had sent"},
    {"BeforeItWasSent", [](History& h) { find(h.client, "notice", 2, "1").t = 109 * kMs; add(h.client, notice(113, 2, "1")); }, "was told 1, which nobody had sent"},
    {"AfterRefusal", [](History& h) { add(h.client, notice(1105, 1, "kill 3")); }, "was told kill 3 though the registration was not in force"},
    {"AfterGivingUp", [](History& h) { add(h.client, notice(6305, 1, "kill 5")); }, "was told kill 5 though the service had been given up on"},
    {"AfterRemoval", [](History& h) { add(h.client, {128 * kMs, "unregister", "", "", "", 4, false}); add(h.client, {129 * kMs, "unregistered", "", "", "", 4, true}); }, "was told false though the registration had been removed"},
    {"RefusedByTheDevice", [](History& h) { add(h.client, notice(155, 5, "3")); }, "was told 3 though the device had refused it"},
    {"NetworkRestored", [](History& h) { add(h.device, made(3032, "com.quarlo.orvel.androidconnectivitymanager", "network", 105)); }, "the network callback was restored"},
    {"NetworkStillTold", [](History& h) { add(h.client, notice(3103, 4, "true")); }, "was told true though the registration was not in force"},
    {"StatusOfADeadEvent", [](History& h) { add(h.client, {4060 * kMs, "result", "", "", "SUCCESS", 2, false}); }, "event 2 has a status though its service had died"},
    {"StatusLost", [](History& h) { drop(h.client, find(h.client, "result", 1)); }, "event 1 has no status"},
    {"StatusDoubled", [](History& h) { add(h.client, find(h.client, "result", 1)); }, "event 1 has two statuses"},
    {"TwoReturns", [](History& h) { add(h.client, find(h.client, "return", 1)); }, "getDeviceName (call 1) has returned twice"},
    {"NoReturn", [](History& h) { drop(h.client, find(h.client, "return", 2)); }, "getDeviceName (call 2) has never returned"},
    {"LateReturn", [](History& h) { Record late = find(h.client, "return", 2); drop(h.client, find(h.client, "return", 2)); late.t = 3010 * kMs; add(h.client, late); }, "getDeviceName (call 2) took 2005 ms"},
    {"AnsweredAfterGivingUp", [](History& h) { find(h.client, "return", 3).ok = true; }, "was answered though its service had been given up on"},
    {"GaveUpEarly", [](History& h) { find(h.client, "gaveup", 0).t = 5500 * kMs; }, "gave up on orvel_delegate after 149 s"},
    {"ReplayedTwice", [](History& h) { add(h.device, made(2038, kDelegate, "setting:kill", 103)); }, "setting:kill was made twice on one connection"},
    {"RefusedAndMadeAgain", [](History& h) { add(h.device, made(1038, kDelegate, kName, 102)); }, "was refused and made again on the same connection"},
    {"NotReplayed", [](History& h) { drop(h.device, find(h.device, "made", 103)); drop(h.device, find(h.device, "act", 11)); drop(h.device, find(h.device, "done", 11)); drop(h.client, find(h.client, "notice", 2, "4")); }, "setting:kill was not made again"},
    {"ReplayedInAnotherOrder", [](History& h) { find(h.device, "made", 103).t = 2037 * kMs; }, "made again in another order"},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(History, PlantedFault, ::testing::ValuesIn(kFaults),
                         [](const auto& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace orvel::kills
