// Intents, packages and processes, as orvelctl and a client of the public headers see them.
#include "Device.h"

namespace orvel::e2e {
namespace {

using Intents = Device;
INSTANTIATE_TEST_SUITE_P(Modes, Intents, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "Together"; });

TEST_P(Intents, EachQuestionHasItsAnswerAndAnEmptyOneIsNoFailure) {
  order({"set", "packages", "package", "com.example.app", R"({"versionCode": -7, "versionName": "1.0 β", "uid": 10777,
         "metaData": {"n": 5, "t": "five"}, "resources": {"2131427329": "line 1\nline 2"},
         "receivers": [{"class": "A", "actions": ["com.example.X"]}, {"class": "B", "actions": ["com.example.X"]}]})"});
  order({"process", "start", "com.example.app:work", "--package", "com.example.app", "--importance", "125"});
  const struct {
    Words words;
    const char* text;
    const char* json;
  } rows[] = {
      {{"pm", "version-code", "com.example.app"}, "-7\n", R"({"package":"com.example.app","versionCode":"-7"})"},
      {{"pm", "version-name", "com.example.app"}, "1.0 β\n", R"({"package":"com.example.app","versionName":"1.0 β"})"},
      {{"pm", "meta-data", "com.example.app", "n", "--int"}, "5\n", R"("key":"n","value":5)"},
      {{"pm", "meta-data", "com.example.app", "t", "--default", "?"}, "five\n", R"("value":"five")"},
      {{"pm", "meta-data", "com.example.app", "n", "--default", "?"}, "?\n", R"("value":"?")"},
      {{"pm", "meta-data", "com.example.app", "t", "--flags", "0"}, "\n", R"("value":"")"},
      {{"pm", "resource", "com.example.app", "0x7f0b0001"}, "line 1\nline 2\n", R"("text":"line 1\nline 2")"},
      {{"pm", "resource", "com.example.app", "1"}, "\n", R"("text":"")"},
      {{"pm", "list", "packages", "--uid", "10777"},
       "com.example.app\n",
       R"({"uid":10777,"packages":["com.example.app"]})"},
      {{"pm", "list", "packages", "--uid", "1"}, "", R"("packages":[])"},
      {{"pm", "has-feature", "android.hardware.wifi"}, "true\n", R"("available":true)"},
      {{"pm", "has-feature", "com.example.none"}, "false\n", R"("available":false)"},
      {{"pm", "query-receivers", "com.example.X"}, "com.example.app\ncom.example.app\n", R"("action":"com.example.X")"},
      {{"am", "process-state", "com.example.app"},
       "importance 125\n",
       R"("running":true,"importance":125,"focused":false)"},
      {{"am", "process-state", "com.example.none"}, "not running\n", R"("running":false,"importance":-1)"},
      {{"am", "start", "com.example.app"}, "started\n", R"({"started":true})"},
      {{"am", "process-state", "com.example.app"}, "importance 100, focused\n", R"("focused":true)"},
  };
  for (const auto& row : rows) {
    const Result text = run(Words{"orvelctl"} + row.words);
    EXPECT_EQ(text.output, row.text) << row.words[1] << " " << text.error;
    const Result json = run(Words{"orvelctl", "--json"} + row.words);
    EXPECT_NE(json.output.find(row.json), std::string::npos) << json.output;
    EXPECT_EQ(text.status + json.status, 0) << text.error << json.error;
  }
  EXPECT_NE(run({"orvelctl", "pm", "list", "packages"}).output.find("com.example.app\n"), std::string::npos);
  EXPECT_NE(run({"orvelctl", "am", "foreground"}).output.find("com.example.app\n"), std::string::npos);
}

TEST_P(Intents, WhatFailsSaysSo) {
  EXPECT_EQ(run({"orvelctl", "pm", "version-code", "com.example.none"}).status, 1);
  EXPECT_EQ(run({"orvelctl", "am", "launch", "com.example.none"}).status, 1);
  order({"truncate", "activity", "8"});
  EXPECT_EQ(run({"orvelctl", "am", "foreground"}).status, 1);
  order({"exception", "delegate", "sendBroadcast", "--message", "not now"});
  EXPECT_EQ(run({"orvelctl", "am", "broadcast", "-a", "com.example.X"}).status, 1);
}

TEST_P(Intents, ABroadcastOfOneClientReachesAnotherAndTheTrafficShowsItWhole) {
  const auto watch = start({"orvelctl", "watch", "--count", "2", "broadcast:com.example.X", "package"});
  watch->waitForError("watching");
  const Result sent = run({"orvelctl",
                           "am",
                           "broadcast",
                           "-a",
                           "com.example.X",
                           "--es",
                           "packageName",
                           "über 💡",
                           "--ei",
                           "i",
                           "-5",
                           "--el",
                           "l",
                           "-9000000000",
                           "--ez",
                           "b",
                           "true",
                           "-c",
                           "c1",
                           "-c",
                           "c2",
                           "-f",
                           "0x80000010",
                           "-n",
                           "p/.C",
                           "-p",
                           "q",
                           "--receiver-permission",
                           "com.example.P"});
  EXPECT_EQ(sent.output, "sent\n") << sent.error;
  run({"orvelctl", "am", "broadcast", "-a", "android.intent.action.PACKAGE_CHANGED", "package:com.example.app"});
  watch->wait();
  EXPECT_NE(watch->output().find("com.example.X über 💡"), std::string::npos) << watch->output();
  EXPECT_NE(watch->output().find("PACKAGE_CHANGED com.example.app"), std::string::npos) << watch->output();

  for (const nlohmann::json& entry : view({"traffic", "--past"})) {
    if (entry.value("method", "") != "sendBroadcastWithPermission") continue;
    const nlohmann::json& intent = entry.at("arguments").at("intent");
    EXPECT_EQ(intent.at("component"), nlohmann::json::parse(R"({"package":"p","class":"p.C"})"));
    EXPECT_EQ(intent.at("categories"), nlohmann::json::parse(R"(["c1","c2"])"));
    EXPECT_EQ(intent.at("flags"), static_cast<int>(0x80000010));
    EXPECT_EQ(intent.at("extras").size(), 4U) << intent;
    EXPECT_EQ(entry.at("arguments").at("permission"), "com.example.P");
    return;
  }
  FAIL() << "the broadcast is not in the traffic";
}

}  // namespace
}  // namespace orvel::e2e
