#include "device/Acts.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "device/CurrentScenario.h"
#include "device/Scenario.h"

namespace orvel::sim {
namespace {

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
      {R"([["replace", "a"]])", "/packages/packages/a/uid", "10000"},
      {R"([["replace", "a", {"versionCode": 20}]])", "/packages/packages/a/versionCode", "20"},
      {R"([["replace", "none"]])", "", "package none does not exist"},
      {R"([["remove", "b"]])", "", "home 100*, "},  // with each process that lists it
      {R"([["remove", "b"]])", "/packages/packages/a/uid", "10000"},
      {R"([["remove", "none"]])", "", "package none does not exist"},
      {R"([["start", "quiet:remote"]])", "/activity/processes/quiet:remote/pid", "4001"},  // between two that are taken
      {R"([["start", "quiet:remote"]])", "/activity/processes/quiet:remote/uid", "10003"},
      {R"([["start", "quiet:remote"]])", "/activity/processes/quiet:remote/packages", R"(["quiet"])"},
      {R"([["start", "stranger"]])", "/activity/processes/stranger/uid", "10001"},
      {R"([["start", "a"]])", "", "process a exists already"},
      {R"([["stop", "a"]])", "", "home 100*, "},
      {R"([["stop", "none"]])", "", "process none does not exist"},
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
