#include "device/Convert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

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
  const std::string kReceives =
      R"(["delegate", "queryBroadcastReceivers", {"action": "a"}, [{"package": "p", "class": "R"}]], )";
  const std::string kLaunch = R"(["delegate", "getLaunchIntentForPackage", {"package": )";
  const struct {
    std::string lines;
    const char* place;
    const char* value;
  } rows[] = {
      {R"(["delegate", "getDeviceInfo", "", ["a", "", "c", "T", "", null]])", "/delegate/info", R"(["a", "", "c"])"},
      {R"(["delegate", "getSecureSetting", {"key": "location_mode"}, null])", "/delegate/settings/location_mode",
       R"("nothing")"},
      {R"(["delegate", "settingChanged", {"key": "k", "value": "2"}])", "/delegate/settings/k", R"("2")"},
      {R"(["delegate", "settingChanged", {"key": "volume_alarm", "value": ""}])", "/delegate/settings/volume_alarm",
       R"("nothing")"},
      {R"(["delegate", "broadcast", {"action": "android.intent.action.SCREEN_OFF"}])", "/power/screenOn", "false"},
      {R"(["delegate", "broadcast", {"action": "a", "extras": [
           {"key": "com.quarlo.speech.EXTRA_CONNECTIVITY", "type": "int", "value": 0}]}])",
       "/delegate/maroConnected", "false"},
      {R"(["connectivity", "networkLost", {}])", "/connectivity/networkConnected", "false"},
      {R"(["events", "eventResult", {"code": 4}])", "/events/result", "4"},
      {R"(["events", "eventResult", {}])", "/events/resultMode", R"("malformed")"},
      {kInstalled, "/packages/packages/p/metaData", R"({"k": 3})"},
      {kInstalled + R"(, ["delegate", "getApplicationInfo", {"package": "p"}, null])", "/packages/packages/p",
       R"("nothing")"},
      {kLaunch + R"("p"}, {"component": {"package": "p", "class": "C"}}])", "/packages/packages/p/launchActivity",
       R"("C")"},
      {kLaunch + R"("com.orvel.camera"}, null])", "/packages/packages/com.orvel.camera/launchActivity", R"("")"},
      {kLaunch + R"("p"}, null])", "/packages/packages/p", R"("nothing")"},
      {kReceives + R"(["delegate", "queryBroadcastReceivers", {"action": "b"}, [{"package": "p", "class": "R"}]])",
       "/packages/packages/p/receivers", R"([{"class": "R", "actions": ["a", "b"]}])"},
      {kReceives + R"(["delegate", "queryBroadcastReceivers", {"action": "a"}, []])", "/packages/packages/p/receivers",
       R"([{"class": "R", "actions": []}])"},
  };
  for (const auto& row : rows) {
    const Json value = scenarioAfter(row.lines).value(Json::json_pointer(row.place), Json("nothing"));
    EXPECT_EQ(value, Json::parse(row.value)) << row.lines;
  }
}

}  // namespace
}  // namespace orvel::sim
