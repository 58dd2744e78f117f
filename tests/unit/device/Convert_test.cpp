#include "device/Convert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "device/Scenario.h"
#include "device/Service.h"

namespace orvel::sim {
namespace {

// A request and its reply or, without a reply, a notification.
struct Line {
  const char* service;
  const char* name;
  const char* arguments;
  const char* reply = nullptr;
};

RecordedEntry entryOf(const Line& line, std::size_t number) {
  const ServiceType& type = serviceCalled(line.service);
  RecordedEntry recorded = {number, &type, nullptr, nullptr, {{"arguments", Json::parse(line.arguments)}}};
  if (line.reply != nullptr) {
    recorded.method = &methodCalled(type, line.name);
    recorded.entry["reply"] = Json::parse(line.reply);
  } else {
    const auto isIt = [&](const CallbackMethod* callback) { return callback->name == line.name; };
    recorded.callback = *std::find_if(type.callbacks.begin(), type.callbacks.end(), isIt);
  }
  return recorded;
}

Json scenarioAfter(const std::vector<Line>& lines) {
  Recording recording = {"session", false, {}, {}};
  for (const Line& line : lines) recording.entries.push_back(entryOf(line, recording.entries.size() + 2));
  return scenarioOf(recording);
}

TEST(Convert, EachReplyAndNotificationBecomesWhatTheDeviceMustHaveHad) {
  const char* const kInstalled = R"({"package": "p", "versionCode": 7, "versionName": "1.0", "firstInstallMs": 1,
    "lastUpdateMs": 2, "application": {"metaData": {"k": 3}}})";
  const struct {
    std::vector<Line> lines;
    std::vector<std::string> words;
    const char* value;  // null: nothing is there
  } rows[] = {
      {{{"delegate", "getDeviceName", "{}", R"("Hall")"}}, {"name"}, R"("Hall")"},
      {{{"delegate", "getCOR", "{}", R"("FR")"}}, {"country"}, R"("FR")"},
      {{{"delegate", "getPFM", "{}", R"("M")"}}, {"marketplace"}, R"("M")"},
      {{{"delegate", "getDeviceInfo", "{}", R"(["a", "", "c", "T", "", null])"}}, {"delegate", "type"}, R"("T")"},
      {{{"delegate", "getDeviceInfo", "{}", R"(["a", "", "c", "T", "", null])"}}, {"info"}, R"(["a", "", "c"])"},
      {{{"delegate", "getSecureSetting", R"({"key": "location_mode"})", "null"}},
       {"setting", "location_mode"},
       nullptr},
      {{{"delegate", "getSecureSetting", R"({"key": "k"})", R"("1")"},
        {"delegate", "settingChanged", R"({"key": "k", "value": "2"})"}},
       {"setting", "k"},
       R"("2")"},
      {{{"delegate", "settingChanged", R"({"key": "location_mode", "value": ""})"}},
       {"setting", "location_mode"},
       nullptr},
      {{{"delegate", "broadcast", R"({"action": "android.intent.action.SCREEN_OFF"})"}}, {"screenOn"}, "false"},
      {{{"delegate", "broadcast", R"({"action": "android.intent.action.SCREEN_OFF"})"},
        {"power", "isInteractive", "{}", "true"}},
       {"screenOn"},
       "true"},
      {{{"delegate", "broadcast",
         R"({"action": "a", "extras": [{"key": "com.quarlo.speech.EXTRA_CONNECTIVITY", "type": "int", "value": 0}]})"}},
       {"maroConnected"},
       "false"},
      {{{"connectivity", "networkLost", "{}"}}, {"networkConnected"}, "false"},
      {{{"events", "eventResult", R"({"code": 4})"}}, {"result"}, "4"},
      {{{"events", "eventResult", "{}"}}, {"resultMode"}, R"("malformed")"},
      {{{"delegate", "getPackageInfo", R"({"package": "p"})", kInstalled}}, {"package", "p", "versionCode"}, "7"},
      {{{"delegate", "getPackageInfo", R"({"package": "p"})", kInstalled}},
       {"package", "p", "metaData"},
       R"({"k": 3})"},
      {{{"delegate", "getPackageInfo", R"({"package": "p"})", kInstalled},
        {"delegate", "getApplicationInfo", R"({"package": "p"})", "null"}},
       {"package", "p"},
       nullptr},
      {{{"packages", "getPackages", "{}", R"(["p", "com.orvel.camera"])"}}, {"package", "com.orvel.weather"}, nullptr},
      {{{"packages", "getPackages", "{}", R"(["p", "com.orvel.camera"])"}},
       {"package", "com.orvel.camera", "versionName"},
       R"("6.2.4.9")"},
      {{{"delegate", "getPackageNamesForUid", R"({"uid": 77})", R"(["p"])"}}, {"package", "p", "uid"}, "77"},
      {{{"delegate", "getLaunchIntentForPackage", R"({"package": "p"})",
         R"({"component": {"package": "p", "class": "C"}})"}},
       {"package", "p", "launchActivity"},
       R"("C")"},
      {{{"delegate", "getLaunchIntentForPackage", R"({"package": "com.orvel.camera"})", "null"}},
       {"package", "com.orvel.camera", "launchActivity"},
       R"("")"},
      {{{"delegate", "getLaunchIntentForPackage", R"({"package": "p"})", "null"}}, {"package", "p"}, nullptr},
      {{{"delegate", "getRawResourceAsString", R"({"package": "p", "id": 17})", R"("text")"}},
       {"package", "p", "resources", "17"},
       R"("text")"},
      {{{"delegate", "queryBroadcastReceivers", R"({"action": "a"})", R"([{"package": "p", "class": "R"}])"},
        {"delegate", "queryBroadcastReceivers", R"({"action": "b"})", R"([{"package": "p", "class": "R"}])"}},
       {"package", "p", "receivers"},
       R"([{"class": "R", "actions": ["a", "b"]}])"},
      {{{"delegate", "queryBroadcastReceivers", R"({"action": "a"})", R"([{"package": "p", "class": "R"}])"},
        {"delegate", "queryBroadcastReceivers", R"({"action": "a"})", "[]"}},
       {"package", "p", "receivers"},
       R"([{"class": "R", "actions": []}])"},
      {{{"activity", "getRunningAppProcessesInfo", "{}", R"({"x": {"pid": 1, "uid": 2, "packages": ["x"]}})"}},
       {"process", "system"},
       nullptr},
  };
  for (const auto& row : rows) {
    const auto value = valueIn(scenarioAfter(row.lines), row.words);
    EXPECT_EQ(value.value_or(Json("(nothing)")), row.value == nullptr ? Json("(nothing)") : Json::parse(row.value))
        << row.lines.front().name << " " << row.words.back();
  }
}

TEST(Convert, AFeatureIsThereOnceOrNotAtAll) {
  const Line has = {"delegate", "checkSystemFeature", R"({"feature": "f"})", "true"};
  const Line hasNot = {"delegate", "checkSystemFeature", R"({"feature": "f"})", "false"};
  const auto featuresAfter = [](const std::vector<Line>& lines) {
    return *valueIn(scenarioAfter(lines), {"features"});
  };
  Json features = featuresAfter({});
  EXPECT_EQ(featuresAfter({has, hasNot}), features);
  features.push_back("f");
  EXPECT_EQ(featuresAfter({has, has}), features);
}

TEST(Convert, AUidThatWasAskedForBelongsToThoseListedAlone) {
  const Json scenario = scenarioAfter({{"delegate", "getPackageNamesForUid", R"({"uid": 10022})", R"(["p", "q"])"}});
  std::vector<std::string> owners;
  std::vector<Json> uids;
  for (const auto& [name, package] : scenario.at("packages").at("packages").items()) {
    if (package.at("uid") == 10022) owners.push_back(name);
    if (name == "com.orvel.camera") uids.push_back(package.at("uid"));
  }
  EXPECT_EQ(owners, (std::vector<std::string>{"p", "q"}));
  ASSERT_EQ(uids.size(), 1U) << "who had it is still there";
}

TEST(Convert, WhatDoesNotFitItsRequestIsToldWithItsLine) {
  const auto errorOf = [](const std::vector<Line>& lines) -> std::string {
    try {
      scenarioAfter(lines);
    } catch (const ScenarioError& error) {
      return error.what();
    }
    return "(none)";
  };
  const Line good = {"delegate", "getDeviceName", "{}", R"("Hall")"};
  EXPECT_EQ(errorOf({good, {"delegate", "getSecureSetting", "{}", R"("1")"}}), "session:3: key 'key' not found");
  EXPECT_EQ(errorOf({{"delegate", "getDeviceInfo", "{}", R"(["a"])"}}).rfind("session:2: ", 0), 0U);
  EXPECT_EQ(errorOf({{"packages", "getPackages", "{}", "[null]"}}).rfind("session:2: ", 0), 0U);
  EXPECT_EQ(errorOf({{"delegate", "getPackageNamesForUid", R"({"uid": "x"})", R"(["p"])"}}).rfind("/packages/", 0), 0U);
}

}  // namespace
}  // namespace orvel::sim
