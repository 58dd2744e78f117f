#include "device/CurrentScenario.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "device/Acts.h"
#include "device/Scenario.h"

namespace orvel::sim {
namespace {

using Words = std::vector<std::string>;

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const ScenarioError& error) {
    return error.what();
  }
  return "(none)";
}

TEST(Scenario, WordsLeadToAValueThatIsReadAsItsFieldWantsIt) {
  const struct {
    const char *words, *value;
    const char* change;  // the path and the value, or how the error begins
  } rows[] = {
      {"name", "Hall", R"(/delegate/name "Hall")"},
      {"setting volume", "7", R"(/delegate/settings/volume "7")"},
      {"setting a/b~c", "", R"(/delegate/settings/a~1b~0c "")"},
      {"screenOn", "true", "/power/screenOn true"},
      {"packages package p resources 17", "r", R"(/packages/packages/p/resources/17 "r")"},
      {"power faults * exception code", "-1", "/power/faults/*/exception/code -1"},
      {"about", "a trial", R"(/about "a trial")"},
      // A package's own data may be a number or a text.
      {"package p metaData k", "7", "/packages/packages/p/metaData/k 7"},
      {"package p metaData k", "\"7\"", R"(/packages/packages/p/metaData/k "7")"},
      {"package p metaData k", "7.5", R"(/packages/packages/p/metaData/k "7.5")"},

      {"interfaceVersion", "1", "interfaceVersion is a field of several services, say of which: power, metrics"},
      {"power screen", "1", "power: unknown key 'screen'; there are screenOn, interfaceVersion, faults, alive, flap"},
      {"name first", "x", "name takes one value; quote it: \"first x\""},
      {"screenOn", "1", "screenOn: expected true or false"},
      {"package p resources 017", "x", "package p resources 017: expected a key that is a whole"},
      {"power faults isInteractive drop", "0", "power faults isInteractive drop: expected true, false or "},
      {"power faults getName hang", "true", "power faults: unknown key 'getName'; there are *, isInteractive"},
      {"metrics flap periodMs", "9", "metrics flap periodMs: expected a whole number from 10 to "},
      {"resultMode", "later", "resultMode: expected one of "},
      {"info", R"(["a", 1])", "info/1: expected a string"},
      {"power", "[]", "power: expected an object"},
      {"colour", "red", "no value is called 'colour'"},
  };
  for (const auto& row : rows) {
    std::istringstream words(row.words);
    std::string change;
    const std::string error = errorOf([&] {
      const Json made = changeOf(Words(std::istream_iterator<std::string>(words), {}), row.value);
      change = made.at("path").get<std::string>() + " " + made.at("value").dump();
    });
    if (change.empty()) change = error;
    EXPECT_EQ(change.rfind(row.change, 0), 0U) << row.words << ": " << change;
  }
  EXPECT_EQ(errorOf([] { changeOf({"setting", std::string("a\0b", 3)}, "1"); }).substr(0, 9), "setting a");
}

TEST(Scenario, AChangeIsTheValuesThatItMakesOthersAndLeavesACompleteScenario) {
  const Json initial = readScenario(R"({"delegate": {"name": "Hall", "settings": {"a": "1", "b": "2"}},
      "power": {"faults": {"*": {"hang": true}, "isInteractive": {"hang": true, "error": -5}}}})",
                                    "here");
  const struct {
    Json change;
    std::string differences;
  } rows[] = {
      {changeOf({"setting", "a"}, "7"), R"(delegate settings a "1">"7" )"},
      {changeOf({"setting", "a"}, "1"), ""},
      {changeOf({"setting", "c/d"}, "3"), R"(delegate settings c/d null>"3" )"},
      {changeOf({"setting", "a"}, std::nullopt), R"(delegate settings a "1">null )"},
      {changeOf({"setting", "e"}, std::nullopt), ""},
      {changeOf({"settings"}, R"({"b": "2", "e": "5", "a": "7"})"),
       R"(delegate settings e null>"5" delegate settings a "1">"7" )"},
      {changeOf({"settings"}, "{}"), R"(delegate settings a "1">null delegate settings b "2">null )"},
      // What must be there is as at first, and a method of which the last fault has ended has none.
      {changeOf({"name"}, std::nullopt), R"(delegate name  "Hall">"Kitchen Display" )"},
      {changeOf({"power", "faults", "*", "hang"}, std::nullopt),
       R"(power faults  {"*":{"hang":true},"isInteractive":{"error":-5,"hang":true}}>)"
       R"({"isInteractive":{"error":-5,"hang":true}} )"},
      // A number as a key makes no list.
      {changeOf({"package", "new", "resources", "0"}, "x"),
       R"(packages packages new null>{"versionCode":1,"versionName":"1.0","uid":10000,"metaData":{},"receivers":[],)"
       R"("launchActivity":"","resources":{"0":"x"},"firstInstallMs":1230768000000,"lastUpdateMs":1230768000000} )"},
      {makeAct("set", "events", {{"reply", 0}, {"result", 0}}), "events reply  1>0 "},
  };
  for (const auto& row : rows) {
    CurrentScenario scenario(initial);
    const Json edits = scenario.resolve(row.change);
    std::string differences;
    for (const Difference& each : scenario.apply(edits)) {
      differences +=
          each.section + " " + each.field + " " + each.key + " " + each.was.dump() + ">" + each.is.dump() + " ";
    }
    EXPECT_EQ(differences, row.differences) << row.change;
    EXPECT_EQ(scenario.json().dump(), readScenario(scenario.json().dump(), "complete").dump()) << "and in order";
    CurrentScenario copy(initial);  // as a process with a copy of the scenario has it
    copy.apply(edits);
    EXPECT_EQ(copy.json(), scenario.json()) << row.change;
    CurrentScenario late(initial);
    late.apply(editsTo(scenario.json()));
    EXPECT_EQ(late.json().at("delegate"), scenario.json().at("delegate")) << row.change;
  }
  const auto refusal = [&](const Json& change) { return errorOf([&] { CurrentScenario(initial).resolve(change); }); };
  EXPECT_EQ(refusal({{"path", ""}, {"value", Json::object()}}), "a change of the whole scenario");
  EXPECT_EQ(refusal(changeOf({"name"}, std::string(5'000'000, 'x'))).rfind("the scenario is too large", 0), 0U);
}

// Three packages, of which one has a process that hosts another, and the process of a stranger.
constexpr char kDevice[] = R"({"packages": {"packages": {"a": {"uid": 10000, "versionCode": 7}, "b": {"uid": 10002},
    "quiet": {"uid": 10003}}},
  "activity": {"processes": {"a": {"pid": 4000, "uid": 10000, "packages": ["a", "b"], "importance": 300},
    "home": {"pid": 4002, "uid": 1000, "packages": ["home"], "importance": 100, "focused": true}}}})";

void act(Json& scenario, const std::string& verb, const std::string& name, const Json& values = Json::object()) {
  CurrentScenario current(scenario);
  current.apply(current.resolve(makeAct(verb.c_str(), name, values)));
  scenario = current.json();
}

// Each with its importance, and a star for the focus.
std::string processesOf(const Json& scenario) {
  std::string all;
  for (const auto& [name, process] : scenario.at("activity").at("processes").items()) {
    all += name + " " + process.at("importance").dump() + (process.at("focused") ? "*, " : ", ");
  }
  return all;
}

TEST(Acts, EachActLeavesPackagesAndProcessesThatFitOrIsRefused) {
  const struct {
    const char* acts;   // verb, name and perhaps values of each
    const char* place;  // of the value that is read then; empty: the processes
    const char* found;  // or why an act was refused
  } rows[] = {
      {R"([["install", "new"]])", "/packages/packages/new/uid", "10001"},  // the first that no package has
      {R"([["install", "new", {"uid": 10000}]])", "/packages/packages/new/uid", "10000"},
      {R"([["install", "a"]])", "", "package a exists already"},
      {R"([["install", "new", {"uid": "1"}]])", "",
       "/packages/packages/new/uid: expected a whole number from 0 to 2147483647"},
      {R"([["replace", "a"]])", "/packages/packages/a/versionCode", "8"},
      {R"([["replace", "a", {"versionCode": 20}]])", "/packages/packages/a/versionCode", "20"},
      {R"([["replace", "none"]])", "", "package none does not exist"},
      {R"([["remove", "b"]])", "", "home 100*, "},  // with each process that lists it
      {R"([["remove", "b"]])", "/packages/packages/a/uid", "10000"},
      {R"([["start", "quiet:remote"]])", "/activity/processes/quiet:remote/pid", "4001"},  // between two that are taken
      {R"([["start", "quiet:remote"]])", "/activity/processes/quiet:remote/uid", "10003"},
      {R"([["start", "quiet:remote"]])", "/activity/processes/quiet:remote/packages", R"(["quiet"])"},
      {R"([["start", "stranger"]])", "/activity/processes/stranger/uid", "10001"},
      {R"([["start", "a"]])", "", "process a exists already"},
      {R"([["stop", "a"]])", "", "home 100*, "},
      {R"([["foreground", "a"], ["foreground", "a"]])", "", "a 100*, home 400, "},
      {R"([["foreground", "none"]])", "", "process none does not exist"},
      {R"([["servePackage", "b", {"importance": 125}]])", "", "a 125, home 100*, "},
      {R"([["servePackage", "b", {"importance": 125}], ["servePackage", "a", {"importance": 300}]])", "",
       "a 125, home 100*, "},  // more important, and never less
      {R"([["servePackage", "quiet", {"importance": 300}]])", "", "a 300, home 100*, quiet 300, "},
      {R"([["servePackage", "none", {"importance": 300}]])", "", "a 300, home 100*, "},
      {R"([["openPackage", "b"]])", "", "a 100*, home 400, "},  // the process that lists it
      {R"([["openPackage", "quiet"]])", "", "a 300, home 400, quiet 100*, "},
      {R"([["openPackage", "none"]])", "", "a 300, home 100*, "},
  };
  for (const auto& row : rows) {
    std::string found;
    try {
      Json scenario = readScenario(kDevice, "here");
      for (const Json& each : Json::parse(row.acts)) {
        act(scenario, each.at(0), each.at(1), each.size() > 2 ? each.at(2) : Json::object());
      }
      found = *row.place == '\0' ? processesOf(scenario) : scenario.at(Json::json_pointer(row.place)).dump();
    } catch (const std::runtime_error& refused) {
      found = refused.what();
    }
    EXPECT_EQ(found, row.found) << row.acts;
  }
}

TEST(Acts, AServiceFlapsAsOftenAsItIsToldAndThenLives) {
  Json scenario = defaultScenario();
  const auto power = [&](const char* verb, const Json& values = Json::object()) {
    act(scenario, verb, "power", values);
    return scenario.at("power");
  };
  EXPECT_EQ(flapInterval(power("flap", {{"periodMs", 30}, {"count", 2}}))->count(), 15);
  std::string life;
  while (flapInterval(scenario.at("power"))) life += power("flapOnce").at("alive") ? "+" : "-";
  EXPECT_EQ(life, "-+-+");

  power("flap", {{"periodMs", 30}});
  for (int n = 0; n < 5; ++n) power("flapOnce");
  EXPECT_EQ(scenario.at("power").at("alive"), false);
  EXPECT_EQ(power("flap").at("alive"), true) << "its end leaves the service alive";
  power("flap", {{"periodMs", 30}});
  EXPECT_FALSE(flapInterval(power("live", {{"alive", false}})));
  EXPECT_EQ(power("flap").at("alive"), false) << "one that does not flap is not revived";
}

}  // namespace
}  // namespace orvel::sim
