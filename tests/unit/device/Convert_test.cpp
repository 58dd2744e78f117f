#include "device/Convert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "device/Scenario.h"
#include "device/Service.h"

namespace orvel::sim {
namespace {

// A request and its reply or, without a reply, a notification: "service", "name", arguments, reply.
RecordedEntry entryOf(const Json& line, std::size_t number) {
  const ServiceType& type = serviceCalled(line.at(0));
  RecordedEntry recorded = {number, &type, nullptr, nullptr, {{"arguments", line.at(2)}}};
  if (line.size() > 3) {
    recorded.method = &methodCalled(type, line.at(1));
    recorded.entry["reply"] = line.at(3);
  } else {
    const auto isIt = [&](const CallbackMethod* callback) { return callback->name == line.at(1); };
    recorded.callback = *std::find_if(type.callbacks.begin(), type.callbacks.end(), isIt);
  }
  return recorded;
}

// `lines` without the brackets around them.
Json scenarioAfter(const std::string& lines) {
  Recording recording = {"session", false, {}, {}};
  for (const Json& line : Json::parse("[" + lines + "]")) {
    recording.entries.push_back(entryOf(line, recording.entries.size() + 2));
  }
  return scenarioOf(recording);
}

// What clients are answered out of such a scenario is asserted with the programs; here stands what they cannot see.
TEST(Convert, EachReplyAndNotificationBecomesWhatTheDeviceMustHaveHad) {
  const std::string kInstalled = R"(["delegate", "getPackageInfo", {"package": "p"}, {"package": "p", "versionCode": 7,
    "versionName": "1.0", "firstInstallMs": 1, "lastUpdateMs": 2, "application": {"metaData": {"k": 3}}}])";
  const std::string kInfo = R"(["delegate", "getDeviceInfo", {}, ["a", "", "c", "T", "", null]])";
  const std::string kScreenOff = R"(["delegate", "broadcast", {"action": "android.intent.action.SCREEN_OFF"}])";
  const std::string kListed = R"(["packages", "getPackages", {}, ["p", "com.orvel.camera"]])";
  const std::string kReceivesA =
      R"(["delegate", "queryBroadcastReceivers", {"action": "a"}, [{"package": "p", "class": "R"}]])";
  const struct {
    std::string lines;
    std::vector<std::string> words;
    const char* value;  // null: nothing is there
  } rows[] = {
      {kInfo, {"info"}, R"(["a", "", "c"])"},
      {R"(["delegate", "getSecureSetting", {"key": "location_mode"}, null])", {"setting", "location_mode"}, nullptr},
      {R"(["delegate", "getSecureSetting", {"key": "k"}, "1"],
           ["delegate", "settingChanged", {"key": "k", "value": "2"}])",
       {"setting", "k"},
       R"("2")"},
      {R"(["delegate", "settingChanged", {"key": "location_mode", "value": ""}])",
       {"setting", "location_mode"},
       nullptr},
      {kScreenOff, {"screenOn"}, "false"},
      {kScreenOff + R"(, ["power", "isInteractive", {}, true])", {"screenOn"}, "true"},
      {R"(["delegate", "broadcast", {"action": "a", "extras": [
           {"key": "com.quarlo.speech.EXTRA_CONNECTIVITY", "type": "int", "value": 0}]}])",
       {"maroConnected"},
       "false"},
      {R"(["connectivity", "networkLost", {}])", {"networkConnected"}, "false"},
      {R"(["events", "eventResult", {"code": 4}])", {"result"}, "4"},
      {R"(["events", "eventResult", {}])", {"resultMode"}, R"("malformed")"},
      {kInstalled, {"package", "p", "versionCode"}, "7"},
      {kInstalled, {"package", "p", "metaData"}, R"({"k": 3})"},
      {kInstalled + R"(, ["delegate", "getApplicationInfo", {"package": "p"}, null])", {"package", "p"}, nullptr},
      {kListed, {"package", "com.orvel.camera", "versionName"}, R"("6.2.4.9")"},
      {R"(["delegate", "getLaunchIntentForPackage", {"package": "p"}, {"component": {"package": "p", "class": "C"}}])",
       {"package", "p", "launchActivity"},
       R"("C")"},
      {R"(["delegate", "getLaunchIntentForPackage", {"package": "com.orvel.camera"}, null])",
       {"package", "com.orvel.camera", "launchActivity"},
       R"("")"},
      {R"(["delegate", "getLaunchIntentForPackage", {"package": "p"}, null])", {"package", "p"}, nullptr},
      {kReceivesA + R"(, ["delegate", "queryBroadcastReceivers", {"action": "b"}, [{"package": "p", "class": "R"}]])",
       {"package", "p", "receivers"},
       R"([{"class": "R", "actions": ["a", "b"]}])"},
      {kReceivesA + R"(, ["delegate", "queryBroadcastReceivers", {"action": "a"}, []])",
       {"package", "p", "receivers"},
       R"([{"class": "R", "actions": []}])"},
  };
  for (const auto& row : rows) {
    const Json value = valueIn(scenarioAfter(row.lines), row.words).value_or(Json("(nothing)"));
    EXPECT_EQ(value, row.value == nullptr ? Json("(nothing)") : Json::parse(row.value)) << row.lines;
  }
}

TEST(Convert, WhatDoesNotFitItsRequestIsToldWithItsLine) {
  const std::pair<const char*, const char*> rows[] = {
      {R"(["delegate", "getDeviceName", {}, "Hall"], ["delegate", "getSecureSetting", {}, "1"])",
       "session:3: key 'key' not found"},
      {R"(["delegate", "getDeviceInfo", {}, ["a"]])", "session:2: "},
      {R"(["packages", "getPackages", {}, [null]])", "session:2: "},
      {R"(["delegate", "getPackageNamesForUid", {"uid": "x"}, ["p"]])", "/packages/"},
  };
  for (const auto& [lines, expected] : rows) {
    try {
      scenarioAfter(lines);
      ADD_FAILURE() << lines << " was taken";
    } catch (const ScenarioError& error) {
      EXPECT_EQ(std::string(error.what()).rfind(expected, 0), 0U) << error.what();
    }
  }
}

}  // namespace
}  // namespace orvel::sim
