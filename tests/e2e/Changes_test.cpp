// Each field of a device can be set and read back, and its clients are told exactly what a device would tell them.
#include <set>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Changes : public Device {
 protected:
  // "delegate name", as the program lists its values.
  std::set<std::string> allFields() const {
    const Words fields =
        linesOf(outputOf("orvel-sim get nothing 2>&1 | sed -nE 's/^  ([^ ]+) +([^ ]+).*/\\1 \\2/p'; "
                         "for r in package process; do orvel-sim get $r com.quarlo.music nothing 2>&1 | "
                         "sed 's/.*there are //' | tr -s ', ' '\\n' | sed \"s/^/$r /\"; done"));
    return {fields.begin(), fields.end()};
  }

  // What the services told their clients so far, one a line: "PACKAGE_ADDED package:a.b UID:int=7 REPLACING:bool=true".
  std::string news() const {
    const auto lastPart = [](const std::string& name) { return name.substr(name.rfind('.') + 1); };
    std::string told;
    for (const json& entry : view("traffic --past")) {
      if (!entry.contains("notification")) continue;
      const json& arguments = entry["arguments"];
      if (entry["notification"] != "broadcast") {
        told += entry["notification"].get<std::string>() + " " + arguments.dump() + "\n";
        continue;
      }
      told += lastPart(arguments["action"]);
      if (arguments.contains("data")) told += " " + arguments["data"].get<std::string>();
      for (const json& extra : arguments.value("extras", json::array())) {
        told += " " + lastPart(extra["key"]) + ":" + extra["type"].get<std::string>() + "=" + extra["value"].dump();
      }
      told += "\n";
    }
    return told;
  }
};
ORVEL_BOTH_MODES(Changes);

constexpr char kUpdated[] =
    "PACKAGE_REMOVED package:com.quarlo.music UID:int=10034 DATA_REMOVED:bool=false REPLACING:bool=true\n"
    "PACKAGE_ADDED package:com.quarlo.music UID:int=10034 REPLACING:bool=true\n"
    "PACKAGE_REPLACED package:com.quarlo.music UID:int=10034 REPLACING:bool=true\n";
constexpr char kAltered[] = "PACKAGE_CHANGED package:com.quarlo.music UID:int=10034\n";

struct Field {
  std::string field;
  std::string place;  // the words that lead to it; the field, if empty
  std::string value;  // which is read back as it was set, if `read` is null
  const char* news = "";
  const char* read = nullptr;
};

std::vector<Field> fields() {
  std::vector<Field> table = {
      {"delegate name", "name", "Hall", "changed devicename:string=\"Hall\"\n"},
      {"delegate serialNumber", "", "S1"},
      {"delegate type", "", "T1"},
      {"delegate customerId", "", "", "removed\n"},
      {"delegate country", "", "FR"},
      {"delegate marketplace", "", "M1"},
      {"delegate info", "", R"(["x"])"},
      {"delegate features", "", R"(["f","g"])"},
      {"delegate maroConnected", "", "false", "CONNECTIVITY_ACTION EXTRA_CONNECTIVITY:int=0\n"},
      {"power screenOn", "", "false", "SCREEN_OFF\n"},
      {"power interfaceVersion", "", "1"},
      {"connectivity networkConnected", "", "false", "networkLost {}\n"},
      {"packages packages", "packages packages new", "{}",
       "PACKAGE_ADDED package:new UID:int=10000 REPLACING:bool=false\n",
       R"({"versionCode":1,"versionName":"1.0","uid":10000,"metaData":{},"receivers":[],"launchActivity":"",
           "resources":{},"firstInstallMs":1230768000000,"lastUpdateMs":1230768000000})"},
      {"package versionCode", "", "-7", kUpdated},
      {"package versionName", "", "7.0", kUpdated, "\"7.0\""},
      {"package lastUpdateMs", "", "1795000000000", kUpdated},
      {"package firstInstallMs", "", "0", kAltered},
      {"package metaData", "package com.quarlo.music metaData k", "\"7\"", kAltered},
      {"package receivers", "", R"([{"class": "C", "actions": ["A"]}])", kAltered},
      {"package launchActivity", "", "L", kAltered},
      {"package resources", "package com.quarlo.music resources 7", "r", kAltered},
      {"package uid", "", "10099", "PACKAGE_CHANGED package:com.quarlo.music UID:int=10099\n"},
      {"activity processes", "process com.quarlo.music", "{}", "",
       R"({"pid":0,"uid":10000,"importance":400,"packages":[],"focused":false})"},
      {"process pid", "", "7"},
      {"process uid", "", "8"},
      {"process importance", "", "125"},
      {"process packages", "", R"(["q"])"},
      {"process focused", "", "true"},
      {"process reason", "process com.quarlo.music reason package", "q"},
      {"events reply", "reply", "0"},
      {"events result", "result", "-1"},
      {"events resultDelayMs", "", "9"},
      {"events resultMode", "", "never"},
      {"metrics interfaceVersion", "", "1"},
      {"about TEXT", "about", "a trial"},
      // The client answers this one. All that was told before must have arrived by then.
      {"delegate settings", "setting k", "9", "settingChanged {\"key\":\"k\",\"value\":\"9\"}\n", "\"9\""},
  };
  for (const std::string service :
       {"delegate", "power", "connectivity", "activity", "packages", "events", "coordinator", "metrics"}) {
    table.push_back(
        {service + " faults", "", R"({"*": {"delayMs": 1, "exception": {"code": -1}}})", "",
         R"({"*":{"exception":{"code":-1,"message":"told to fail by orvel-sim","trace":""},"delayMs":1}})"});
    table.push_back({service + " flap", "", R"({"periodMs": 600000})"});
    table.push_back({service + " alive", "", "false"});
  }
  return table;
}

class Fields : public Changes {};
INSTANTIATE_TEST_SUITE_P(, Fields, ::testing::Values(true), [](const auto&) { return "Isolated"; });

TEST_P(Fields, EachFieldReadsAsItWasSetAndTellsClientsItsOwnNewsOnce) {
  const auto listening = client();
  listening->write("subscribe");
  ASSERT_EQ(listening->waitForOutput("subscribed "), "1");
  std::set<std::string> left = allFields();
  std::string expected;
  for (const Field& row : fields()) {
    SCOPED_TRACE(row.field);
    EXPECT_EQ(left.erase(row.field), 1U) << "no such field, or twice";
    std::string place = row.place.empty() ? row.field : row.place;
    if (row.place.empty() && place.rfind("p", 0) == 0 && place.find(' ') == 7) place.insert(7, " com.quarlo.music");
    expected += row.news;
    const Result read = run("v='" + row.value + "'; orvel-sim set " + place + " \"$v\" && orvel-sim get " + place +
                            " --json && orvel-sim set " + place + " \"$v\"");  // the second time it is no news
    const json value = json::parse(row.read != nullptr ? row.read : row.value, nullptr, false);
    EXPECT_EQ(json::parse(read.output, nullptr, false), value.is_discarded() ? json(row.value) : value) << read.error;
    if (row.field == "delegate settings") start("orvel-sim traffic --last 1000")->waitForOutput("settingChanged");
  }
  EXPECT_EQ(left, std::set<std::string>()) << "fields without a row";
  EXPECT_EQ(news(), expected);
}

TEST_P(Changes, APackageManagerTellsWhatBecomesOfPackages) {
  const auto watcher = start("orvelctl watch package --count 6", "orvelctl: watching ");
  order("package replace com.quarlo.music --version-name 2.0", "package remove com.quarlo.music",
        "package install c.d --uid 1", "unset packages package c.d");
  EXPECT_EQ(watcher->wait(), 0);
  const std::string expected =
      std::string(kUpdated) +
      "PACKAGE_REMOVED package:com.quarlo.music UID:int=10034 DATA_REMOVED:bool=true REPLACING:bool=false\n"
      "PACKAGE_ADDED package:c.d UID:int=1 REPLACING:bool=false\n"
      "PACKAGE_REMOVED package:c.d UID:int=1 DATA_REMOVED:bool=true REPLACING:bool=false\n";
  EXPECT_EQ(news(), expected);
}

TEST_P(Changes, OneProcessHasTheFocusAndNoneOutlivesItsPackage) {
  expectRows({{"orvel-sim package install a.b && orvel-sim process start x --package p --package a.b --importance 300"},
              {"orvelctl am process-state p", "importance 300\n"},
              {"orvel-sim process foreground x && orvel-sim process", "...x"},
              {"orvelctl am process-state a.b", "importance 100, focused\n"},
              {"orvelctl am process-state com.quarlo.home", "importance 400\n"},  // which had the focus before
              {"orvel-sim process stop com.quarlo.home && orvel-sim get process com.quarlo.home", "", 1},
              {"orvel-sim package remove a.b && orvelctl am process-state p", "not running\n"}});
}

TEST_P(Changes, ARefusedOrderOrRequestChangesNothing) {
  const std::vector<json> before = view("state");
  expectRows({{"orvel-sim package install com.quarlo.home", "", 1, "package com.quarlo.home exists already"},
              {"orvel-sim package install a.b --uid -1", "", 1, "/packages/a.b/uid: expected a whole number from 0"}});

  // Code, shape of the reply and words of the request, "H" for a good header; 0 for an answer, exception code,
  // message, no stack trace. An intent: presence, length, four texts, no component, no extras, no categories, flags.
  const std::pair<const char*, const char*> requests[] = {
      {"33 is H", "0 0 Kitchen Display"},
      {"99 isi H", "0 -7 transaction 99, header: com.quarlo.orveldelegate.IDelegateService has no such transaction 0"},
      {"33 isi 0 -1 1398362964 'com.quarlo.IOther",
       "0 -1 getDeviceName, header: the request is for the interface \"com.quarlo.IOther\", this is "
       "com.quarlo.orveldelegate.IDelegateService 0"},
      {"33 isi 0 -1 7 'com.quarlo.orveldelegate.IDelegateService",
       "0 -2 getDeviceName, header: the request header holds 7 where 1398362964 belongs 0"},
      {"15 isi H", "0 -2 getSecureSetting, key: the request ends early or holds something else here 0"},
      {"33 isi H 7", "0 -2 getDeviceName, end: 4 bytes follow the last argument 0"},
      {"15 isi H -1", "0 -3 getSecureSetting: the key is empty 0"},
      {"15 ii H 'unset", "0 0 -1"},
      {"37 i H 1 52 'A -1 -1 'nope 0 0 0 0", "0 0"},  // not installed: accepted
      {"37 isi H 1 56 'A -1 -1 'nope 0 0 0 0",
       "0 -2 startActivity, intent: the length of the intent is given as 56 bytes and is 52 0"},
      {"37 isi H 1 64 'A -1 -1 -1 0 1 16 1 'k 2 5 0 0",
       "0 -2 startActivity, intent: the extra \"k\" has the unknown type 2 0"},
      {"37 isi H 0", "0 -3 startActivity: the intent has no action, no package and no component 0"},
  };
  const auto asking = client();
  for (const auto& [request, reply] : requests) {
    std::string words = request;
    const std::size_t header = words.find('H');
    if (header != std::string::npos) {
      words.replace(header, 1, "0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService");
    }
    asking->write("call orvel_delegate " + words);
    EXPECT_EQ(asking->waitForOutput("reply "), reply) << request;
  }
  EXPECT_EQ(view("state"), before);
}

}  // namespace
}  // namespace orvel::e2e
