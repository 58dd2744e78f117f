// Whatever can be set can be read back, and clients are told exactly what a device would tell them.
#include <set>

#include "Device.h"

namespace orvel::e2e {
namespace {

using nlohmann::json;

class Getters : public Device {
 protected:
  // What follows "there are" or stands in the list of a message about a word that does not exist.
  std::vector<std::string> fieldsBelow(const Words& place) const {
    const std::string error = run(Words{"orvel-sim", "get"} + place + Words{"nothing"}).error;
    std::vector<std::string> fields;
    std::istringstream names(error.substr(error.find("there are ") + 10));
    for (std::string name; std::getline(names, name, ',');) {
      fields.push_back(name.substr(name.find_first_not_of(' '), name.find('\n') - name.find_first_not_of(' ')));
    }
    return fields;
  }

  // "delegate name", as the program lists its values.
  std::set<std::string> allFields() const {
    std::set<std::string> fields;
    std::istringstream lines(run({"orvel-sim", "get", "nothing"}).error);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("  ", 0) != 0) continue;
      std::istringstream words(line);
      std::string section;
      std::string field;
      words >> section >> field;
      fields.insert(section == "about" ? section : section + " " + field);
    }
    for (const Words& record : {Words{"package", "com.quarlo.music"}, Words{"process", "com.quarlo.music"}}) {
      for (const std::string& field : fieldsBelow(record)) fields.insert(record.front() + " " + field);
    }
    return fields;
  }

  // What the services told their clients, as "service notification arguments".
  std::vector<std::string> news() const {
    std::vector<std::string> told;
    for (const json& entry : view({"traffic", "--past"})) {
      if (!entry.contains("notification")) continue;
      told.push_back(entry["service"].get<std::string>() + " " + entry["notification"].get<std::string>() + " " +
                     entry["arguments"].dump());
    }
    return told;
  }
};

struct Row {
  std::string field;  // as the program lists it
  Words place;
  std::string value;
  std::string read;               // as JSON
  std::vector<std::string> news;  // of the change
};

std::string broadcast(const std::string& action, const std::string& rest = "") {
  return R"(delegate broadcast {"action":")" + action + "\"" + rest + "}";
}

std::string extra(const std::string& key, const std::string& type, const std::string& value) {
  return R"({"key":")" + key + R"(","type":")" + type + R"(","value":)" + value + "}";
}

std::string packageNews(const std::string& event, const std::string& package, const std::string& extras) {
  return broadcast("android.intent.action.PACKAGE_" + event,
                   R"(,"data":"package:)" + package + R"(","extras":[)" + extras + "]");
}

std::vector<Row> rows() {
  const std::string uid = extra("android.intent.extra.UID", "int", "10034");
  const auto flag = [](const char* name, const char* value) {
    return "," + extra(std::string("android.intent.extra.") + name, "bool", value);
  };
  const std::string music = "com.quarlo.music";
  const std::vector<std::string> updated = {
      packageNews("REMOVED", music, uid + flag("DATA_REMOVED", "false") + flag("REPLACING", "true")),
      packageNews("ADDED", music, uid + flag("REPLACING", "true")),
      packageNews("REPLACED", music, uid + flag("REPLACING", "true"))};
  const std::vector<std::string> altered = {packageNews("CHANGED", music, uid)};
  const auto ofMusic = [&](const char* field) { return Words{"package", music, field}; };

  std::vector<Row> table = {
      {"about", {"about"}, "a trial", R"("a trial")", {}},
      {"delegate name",
       {"name"},
       "Hall",
       R"("Hall")",
       {broadcast("com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed",
                  R"(,"extras":[)" + extra("com.quarlo.hux.sso.property.devicename", "string", R"("Hall")") + "]")}},
      {"delegate serialNumber", {"serialNumber"}, "S1", R"("S1")", {}},
      {"delegate type", {"delegate", "type"}, "T1", R"("T1")", {}},
      {"delegate customerId", {"customerId"}, "", R"("")", {broadcast("com.quarlo.hux.sso.action.account.removed")}},
      {"delegate country", {"country"}, "FR", R"("FR")", {}},
      {"delegate marketplace", {"marketplace"}, "M1", R"("M1")", {}},
      {"delegate info", {"info"}, R"(["x"])", R"(["x"])", {}},
      {"delegate features", {"features"}, R"(["f", "g"])", R"(["f","g"])", {}},
      {"delegate maroConnected",
       {"maroConnected"},
       "false",
       "false",
       {broadcast("com.quarlo.speech.CONNECTIVITY_ACTION",
                  R"(,"extras":[)" + extra("com.quarlo.speech.EXTRA_CONNECTIVITY", "int", "0") + "]")}},
      {"power screenOn", {"screenOn"}, "false", "false", {broadcast("android.intent.action.SCREEN_OFF")}},
      {"power interfaceVersion", {"power", "interfaceVersion"}, "1", "1", {}},
      {"connectivity networkConnected", {"networkConnected"}, "false", "false", {"connectivity networkLost {}"}},
      {"packages packages",
       {"packages", "packages", "com.example.new"},
       "{}",
       R"({"versionCode":1,"versionName":"1.0","uid":10000,"metaData":{},"receivers":[],"launchActivity":"",
           "resources":{},"firstInstallMs":1230768000000,"lastUpdateMs":1230768000000})",
       {packageNews("ADDED", "com.example.new",
                    extra("android.intent.extra.UID", "int", "10000") + flag("REPLACING", "false"))}},
      {"package versionCode", ofMusic("versionCode"), "-7", "-7", updated},
      {"package versionName", ofMusic("versionName"), "7.0", R"("7.0")", updated},
      {"package lastUpdateMs", ofMusic("lastUpdateMs"), "1795000000000", "1795000000000", updated},
      {"package firstInstallMs", ofMusic("firstInstallMs"), "0", "0", altered},
      {"package metaData", ofMusic("metaData") + Words{"k"}, "\"7\"", "\"7\"", altered},
      {"package receivers", ofMusic("receivers"), R"([{"class": "C", "actions": ["A"]}])",
       R"([{"class":"C","actions":["A"]}])", altered},
      {"package launchActivity", ofMusic("launchActivity"), "L", R"("L")", altered},
      {"package resources", ofMusic("resources") + Words{"7"}, "r", R"("r")", altered},
      {"package uid",
       ofMusic("uid"),
       "10099",
       "10099",
       {packageNews("CHANGED", music, extra("android.intent.extra.UID", "int", "10099"))}},
      {"activity processes",
       {"process", "p"},
       "{}",
       R"({"pid":0,"uid":10000,"importance":400,"packages":[],"focused":false})",
       {}},
      {"process pid", {"process", "p", "pid"}, "7", "7", {}},
      {"process uid", {"process", "p", "uid"}, "8", "8", {}},
      {"process importance", {"process", "p", "importance"}, "125", "125", {}},
      {"process packages", {"process", "p", "packages"}, R"(["q"])", R"(["q"])", {}},
      {"process focused", {"process", "p", "focused"}, "true", "true", {}},
      {"process reason", {"process", "p", "reason", "package"}, "q", R"("q")", {}},
      {"events reply", {"reply"}, "0", "0", {}},
      {"events result", {"result"}, "-1", "-1", {}},
      {"events resultDelayMs", {"resultDelayMs"}, "9", "9", {}},
      {"events resultMode", {"resultMode"}, "never", R"("never")", {}},
      {"metrics interfaceVersion", {"metrics", "interfaceVersion"}, "1", "1", {}},
      // The client answers this one. All that was told before must have arrived by then.
      {"delegate settings",
       {"setting", "volume_alarm"},
       "9",
       R"("9")",
       {R"(delegate settingChanged {"key":"volume_alarm","value":"9"})"}},
  };
  for (const char* service :
       {"delegate", "power", "connectivity", "activity", "packages", "events", "coordinator", "metrics"}) {
    const std::string name = service;
    table.push_back({name + " faults",
                     {name, "faults"},
                     R"({"*": {"delayMs": 1, "exception": {"code": -1}}})",
                     R"({"*":{"exception":{"code":-1,"message":"told to fail by orvel-sim","trace":""},"delayMs":1}})",
                     {}});
    table.push_back({name + " flap", {name, "flap"}, R"({"periodMs": 600000})", R"({"periodMs":600000})", {}});
    table.push_back({name + " alive", {name, "alive"}, "false", "false", {}});
  }
  return table;
}

TEST_P(Getters, EachFieldReadsAsItWasSetAndTellsClientsItsOwnNewsOnce) {
  const auto client = start({"orvel-e2e-client"});
  client->waitForOutput("ready");
  client->write("subscribe");
  ASSERT_EQ(client->waitForOutput("subscribed "), "1");
  std::set<std::string> left = allFields();
  std::vector<std::string> expected;
  for (const Row& row : rows()) {
    SCOPED_TRACE(row.field);
    EXPECT_EQ(left.erase(row.field), 1U) << "no such field, or twice";
    const Words set = Words{"set"} + row.place + Words{row.value};
    order(set);
    expected.insert(expected.end(), row.news.begin(), row.news.end());
    const Result read = run(Words{"orvel-sim", "get"} + row.place + Words{"--json"});
    EXPECT_EQ(json::parse(read.output, nullptr, false), json::parse(row.read)) << read.error;
    order(set);  // which is no news
    if (!row.news.empty() && row.field == "delegate settings") {
      start({"orvel-sim", "traffic", "--last", "1000"})->waitForOutput("settingChanged");
    }
  }
  EXPECT_EQ(left, std::set<std::string>()) << "fields without a row";
  EXPECT_EQ(news(), expected);
}

TEST_P(Getters, EachVerbShowsWhatIsInForceInWordsThatWouldSetIt) {
  const struct {
    Words set;
    Words read;
    std::string shown;
  } table[] = {
      {{}, {"screen"}, "on\n"},
      {{"screen", "off"}, {"screen"}, "off\n"},
      {{}, {"screen", "--json"}, "false\n"},
      {{}, {"account"}, "added quarlo.account.7Q2M4X\n"},
      {{"account", "added", "a.b"}, {"account"}, "added a.b\n"},
      {{"set", "customerId", "<unknown>"}, {"account"}, "removed\n"},
      {{"maro", "disconnected"}, {"maro"}, "disconnected\n"},
      {{"network", "disconnected"}, {"network"}, "disconnected\n"},
      {{}, {"event-result"}, "SUCCESS\n"},
      {{"event-result", "4", "--delay", "5", "--reply", "0", "--twice"},
       {"event-result"},
       "TIMEOUT --delay 5 --reply 0 --twice\n"},
      {{"event-result", "-3"}, {"event-result"}, "-3\n"},
      {{}, {"delay"}, ""},
      {{"delay", "delegate", "5"}, {"delay"}, "delegate * 5\n"},
      {{"delay", "delegate", "getDeviceName", "7"}, {"delay", "delegate"}, "delegate * 5\ndelegate getDeviceName 7\n"},
      {{}, {"delay", "delegate", "getDeviceName"}, "delegate getDeviceName 7\n"},
      {{"delay", "delegate", "*", "off"},
       {"delay", "--json"},
       "{\"service\":\"delegate\",\"method\":\"getDeviceName\",\"value\":7}\n"},
      {{"delay", "delegate", "getDeviceName", "off"}, {"get", "delegate", "faults"}, "{}\n"},
      {{"hang", "power"}, {"hang"}, "power * on\n"},
      {{"drop", "power", "isInteractive", "3"}, {"drop"}, "power isInteractive 3\n"},
      {{"drop", "power", "isInteractive"}, {"drop"}, "power isInteractive on\n"},
      {{"error", "metrics", "-74"}, {"error"}, "metrics * -74\n"},
      {{"truncate", "coordinator", "0"}, {"truncate"}, "coordinator * 0\n"},
      {{"exception", "events", "--code", "-1", "--message", "no"},
       {"exception"},
       "events * {\"code\":-1,\"message\":\"no\",\"trace\":\"\"}\n"},
      {{"flap", "events", "600000", "3"}, {"flap"}, "events 600000 3\n"},
      {{"flap", "events", "600000"}, {"flap", "events"}, "events 600000\n"},
      {{"flap", "events", "off"}, {"flap"}, ""},
      {{"set", "processes", "{}"}, {"process"}, ""},
      {{"process", "start", "a", "--uid", "7"},
       {"process", "--json"},
       R"({"process":"a","pid":4000,"uid":7,"importance":400,"packages":["a"],"focused":false})"
       "\n"},
      {{"set", "packages", "packages", "{}"}, {"package"}, ""},
      {{"set", "name", "a \"b\""}, {"get", "name"}, "a \"b\"\n"},
      {{}, {"get", "name", "--json"}, "\"a \\\"b\\\"\"\n"},
      {{"kill", "metrics"}, {"get", "metrics", "alive"}, "false\n"},
  };
  for (const auto& row : table) {
    if (!row.set.empty()) order(row.set);
    EXPECT_EQ(run(Words{"orvel-sim"} + row.read).output, row.shown) << row.read.front();
  }
  const Result unset = run({"orvel-sim", "get", "setting", "volume"});
  EXPECT_EQ(unset.status, 1);
  EXPECT_EQ(unset.output + unset.error, "orvel-sim: /delegate/settings/volume is not set\n");
  const auto state = view({"state"});
  EXPECT_EQ(view({"get"}), state);
}

INSTANTIATE_TEST_SUITE_P(, Getters, ::testing::Values(false), [](const auto&) { return "InOneProcess"; });

}  // namespace
}  // namespace orvel::e2e
