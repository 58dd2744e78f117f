// What a device tells of its packages, and how its processes change.
#include "Device.h"

namespace orvel::e2e {
namespace {

using nlohmann::json;

class Packages : public Device {
 protected:
  json state() const { return view({"state"}).at(0); }

  // "100 focused", or "none".
  std::string process(const std::string& name) const {
    const json found = state().at("activity").at("processes").value(name, json());
    if (found.is_null()) return "none";
    return found.at("importance").dump() + (found.at("focused") ? " focused" : "");
  }

  // What was broadcast so far, each as "PACKAGE_ADDED package:a.b UID=7 REPLACING=true".
  std::string broadcasts() const {
    const auto lastPart = [](const std::string& name) { return name.substr(name.rfind('.') + 1); };
    std::string told;
    for (const json& entry : view({"traffic", "--past"})) {
      if (!entry.contains("notification")) continue;
      const json& intent = entry.at("arguments");
      told += lastPart(intent.at("action")) + " " + intent.at("data").get<std::string>();
      for (const json& extra : intent.at("extras"))
        told += " " + lastPart(extra.at("key")) + "=" + extra["value"].dump();
      told += "\n";
    }
    return told;
  }
};

TEST_P(Packages, AWatcherIsToldAsAPackageManagerTells) {
  const auto watcher = start({"orvelctl", "watch", "package", "--count", "8"});
  watcher->waitForError("orvelctl: watching ");
  order({"package", "install", "a.b", "--version-code", "7", "--uid", "10500"});
  order({"package", "replace", "a.b", "--version-name", "2.0"});
  order({"set", "packages", "package", "a.b", "metaData", "key", "text"});
  order({"set", "packages", "package", "a.b", "metaData", "key", "text"});  // is no change
  EXPECT_EQ(state().at("packages").at("packages").at("a.b").at("versionCode"), 8);
  order({"package", "remove", "a.b"});
  order({"package", "install", "c.d", "--uid", "1"});
  order({"unset", "packages", "package", "c.d"});
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(broadcasts(),
            "PACKAGE_ADDED package:a.b UID=10500 REPLACING=false\n"
            "PACKAGE_REMOVED package:a.b UID=10500 DATA_REMOVED=false REPLACING=true\n"
            "PACKAGE_ADDED package:a.b UID=10500 REPLACING=true\n"
            "PACKAGE_REPLACED package:a.b UID=10500 REPLACING=true\n"
            "PACKAGE_CHANGED package:a.b UID=10500\n"
            "PACKAGE_REMOVED package:a.b UID=10500 DATA_REMOVED=true REPLACING=false\n"
            "PACKAGE_ADDED package:c.d UID=1 REPLACING=false\n"
            "PACKAGE_REMOVED package:c.d UID=1 DATA_REMOVED=true REPLACING=false\n");
}

TEST_P(Packages, OneProcessHasTheFocusAndNoneOutlivesItsPackage) {
  order({"package", "install", "a.b"});
  order({"process", "start", "a.b:remote"});
  order({"process", "start", "x", "--package", "p", "--package", "a.b", "--importance", "300"});
  order({"process", "foreground", "a.b:remote"});
  EXPECT_EQ(process("a.b:remote"), "100 focused");
  EXPECT_EQ(process("com.quarlo.home"), "400") << "it had the focus before";
  order({"process", "stop", "com.quarlo.home"});
  EXPECT_EQ(process("com.quarlo.home"), "none");
  EXPECT_EQ(process("x"), "300");
  order({"package", "remove", "a.b"});
  EXPECT_EQ(process("a.b:remote") + process("x"), "nonenone");
}

TEST_P(Packages, ARefusedOrderOrRequestChangesNothing) {
  const json before = state();
  const struct {
    Words words;
    const char* error;
  } orders[] = {
      {{"package", "install", "com.quarlo.home"}, "package com.quarlo.home exists already"},
      {{"package", "install", "a.b", "--uid", "-1"}, "/packages/packages/a.b/uid: expected a whole number from 0"},
      {{"package", "replace", "a.b"}, "package a.b does not exist"},
      {{"process", "start", "system"}, "process system exists already"},
      {{"process", "foreground", "a.b"}, "process a.b does not exist"},
  };
  for (const auto& row : orders) {
    const Result result = run(Words{"orvel-sim"} + row.words);
    EXPECT_EQ(result.status, 1) << row.error;
    EXPECT_NE(result.error.find(row.error), std::string::npos) << result.error;
  }
  // To start an activity. Words: presence, length, four texts, no component, no extras, no categories, flags.
  const struct {
    const char* words;
    std::string shape;  // of the reply
    const char* reply;
  } requests[] = {
      {"1 52 'A -1 -1 'nope 0 0 0 0", "i", "0 0"},  // not installed: accepted
      {"1 56 'A -1 -1 'nope 0 0 0 0", "isi",
       "0 -2 startActivity, intent: the length of the intent is given as 56 bytes and is 52 0"},
      {"1 64 'A -1 -1 -1 0 1 16 1 'k 2 5 0 0", "isi",
       "0 -2 startActivity, intent: the extra \"k\" has the unknown type 2 0"},
      {"0", "isi", "0 -3 startActivity: the intent has no action, no package and no component 0"},
  };
  const auto client = start({"orvel-e2e-client"});
  client->waitForOutput("ready");
  for (const auto& row : requests) {
    const std::string header = " 0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService ";
    client->write("call orvel_delegate 37 " + row.shape + header + row.words);
    EXPECT_EQ(client->waitForOutput("reply "), row.reply);
  }
  EXPECT_EQ(state(), before);
}

INSTANTIATE_TEST_SUITE_P(, Packages, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "InOneProcess"; });

}  // namespace
}  // namespace orvel::e2e
