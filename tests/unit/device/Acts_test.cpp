#include "device/Acts.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "device/CurrentScenario.h"
#include "device/Scenario.h"

namespace orvel::sim {
namespace {

// A device with three packages, of which one has a process and another is hosted by it.
class Acts : public ::testing::Test {
 protected:
  void act(const char* verb, const std::string& name, const Json& values = Json::object()) {
    CurrentScenario scenario(m_scenario);
    scenario.apply(scenario.resolve(makeAct(verb, name, values)));
    m_scenario = scenario.json();
  }
  void expectRefusal(const char* verb, const std::string& name, const std::string& why) {
    const Json before = m_scenario;
    try {
      act(verb, name);
      ADD_FAILURE() << verb << " " << name << " was not refused";
    } catch (const std::runtime_error& refused) {
      EXPECT_EQ(refused.what(), why);
    }
    EXPECT_EQ(m_scenario, before);
  }

  Json package(const std::string& name) { return m_scenario.at("packages").at("packages").at(name); }
  Json process(const std::string& name) { return m_scenario.at("activity").at("processes").at(name); }
  Json& power() { return m_scenario.at("power"); }
  // Each with its importance, and a star for the focus.
  std::string processes() const {
    std::string all;
    for (const auto& [name, process] : m_scenario.at("activity").at("processes").items()) {
      all += name + " " + process.at("importance").dump() + (process.at("focused") ? "*, " : ", ");
    }
    return all;
  }

  Json m_scenario =
      readScenario(R"({"packages": {"packages": {"a": {"uid": 10000, "versionCode": 7}, "b": {"uid": 10002},
          "quiet": {"uid": 10003}}},
        "activity": {"processes": {"a": {"pid": 4000, "uid": 10000, "packages": ["a", "b"], "importance": 300},
          "home": {"pid": 4002, "uid": 1000, "packages": ["home"], "importance": 100, "focused": true}}}})",
                   "here");
};

TEST_F(Acts, APackageIsInstalledUnderAUidOfItsOwnOnceAndReplacedByTheNextVersion) {
  act("install", "new");
  EXPECT_EQ(package("new").at("uid"), 10001) << "the first that no package has";
  act("install", "shared", {{"uid", 10000}, {"versionName", "2.0"}});
  EXPECT_EQ(package("shared").at("uid"), 10000) << "what is given goes first";
  EXPECT_EQ(package("shared").at("versionName"), "2.0");
  expectRefusal("install", "new", "package new exists already");
  act("replace", "a");
  EXPECT_EQ(package("a").at("versionCode"), 8);
  EXPECT_EQ(package("a").at("uid"), 10000);
  act("replace", "a", {{"versionCode", 20}});
  EXPECT_EQ(package("a").at("versionCode"), 20);
  expectRefusal("replace", "none", "package none does not exist");
}

TEST_F(Acts, ARemovedPackageTakesEveryProcessThatListsItAlong) {
  act("remove", "b");
  EXPECT_EQ(processes(), "home 100*, ");
  EXPECT_NO_THROW(package("a")) << "the package that the process is named after stays";
  expectRefusal("remove", "b", "package b does not exist");
}

TEST_F(Acts, AProcessBelongsToThePackageThatItIsNamedAfter) {
  act("start", "quiet:remote");
  EXPECT_EQ(process("quiet:remote").at("pid"), 4001) << "between two that are taken";
  EXPECT_EQ(process("quiet:remote").at("uid"), 10003);
  EXPECT_EQ(process("quiet:remote").at("packages"), Json({"quiet"}));
  act("start", "stranger");
  EXPECT_EQ(process("stranger").at("uid"), 10001) << "of a package that is not installed";
  expectRefusal("start", "a", "process a exists already");
  act("stop", "a");
  expectRefusal("stop", "a", "process a does not exist");
}

TEST_F(Acts, OneProcessHasTheFocusAndServingMakesOneMoreImportantAndNeverLess) {
  for (int twice = 0; twice < 2; ++twice) {
    act("foreground", "a");
    EXPECT_EQ(processes(), "a 100*, home 400, ");
  }
  expectRefusal("foreground", "none", "process none does not exist");
  act("foreground", "home");
  act("servePackage", "b", {{"importance", kForegroundService}});
  EXPECT_EQ(processes(), "a 125, home 100*, ");
  act("servePackage", "a", {{"importance", kService}});
  EXPECT_EQ(processes(), "a 125, home 100*, ");
  act("servePackage", "quiet", {{"importance", kService}});
  EXPECT_EQ(processes(), "a 125, home 100*, quiet 300, ");
}

TEST_F(Acts, OpeningAPackageStartsWhatIsMissingAndNothingForAStranger) {
  act("openPackage", "b");
  EXPECT_EQ(processes(), "a 100*, home 400, ") << "the process that lists it";
  act("openPackage", "quiet");
  EXPECT_EQ(processes(), "a 400, home 400, quiet 100*, ");
  act("openPackage", "none");
  EXPECT_EQ(processes(), "a 400, home 400, quiet 100*, ");
}

TEST_F(Acts, AServiceFlapsAsOftenAsItIsToldAndThenLives) {
  EXPECT_FALSE(flapInterval(power()));
  act("flap", "power", {{"periodMs", 30}, {"count", 2}});
  EXPECT_EQ(flapInterval(power())->count(), 15);
  std::string life;
  for (; flapInterval(power()); life += power().at("alive") ? "+" : "-") {
    act("flapOnce", "power");
  }
  EXPECT_EQ(life, "-+-+");

  act("flap", "power", {{"periodMs", 30}});
  for (int n = 0; n < 101; ++n) act("flapOnce", "power");
  EXPECT_EQ(power().at("alive"), false);
  act("flap", "power");
  EXPECT_EQ(power().at("alive"), true) << "its end leaves the service alive";
  EXPECT_FALSE(flapInterval(power()));

  act("flap", "power", {{"periodMs", 30}});
  act("live", "power", {{"alive", false}});
  EXPECT_FALSE(flapInterval(power()));
  act("flap", "power");
  EXPECT_EQ(power().at("alive"), false) << "one that does not flap is not revived";
}

TEST_F(Acts, WhatNoActDoesIsRefusedByTheShapeOfTheScenario) {
  EXPECT_THROW(act("dance", "a"), std::runtime_error);
  EXPECT_THROW(act("install", "new", {{"colour", "red"}}), ScenarioError);
  EXPECT_THROW(act("set", "events", {{"reply", "yes"}}), ScenarioError);
  EXPECT_EQ(m_scenario.at("events"), defaultScenario().at("events"));
}

}  // namespace
}  // namespace orvel::sim
