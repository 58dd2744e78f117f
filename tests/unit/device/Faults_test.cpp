// Faults as people set them, and which calls they strike.
#include <gtest/gtest.h>

#include "device/Acts.h"
#include "device/Scenario.h"
#include "device/Service.h"
#include "tools/cli/Help.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/Steps.h"
#include "tools/orvel-sim/verbs/FaultWords.h"

namespace orvel::sim {
namespace {

using Words = std::vector<std::string>;

// What it gives, or the error that it throws.
template <typename Give>
std::string given(const Give& give) {
  try {
    return give();
  } catch (const ScenarioError& error) {
    return error.what() + cli::didYouMean(error.word, error.known);
  }
}

TEST(Faults, EveryWordIsTheServiceItsMethodOrAValueOrRefused) {
  const struct {
    const char *verb, *words, *expected;  // service, method and value, or the beginning of the error
  } rows[] = {
      {"hang", "delegate", "delegate//true"},
      {"hang", "orvel_delegate getDeviceName on", "delegate/getDeviceName/true"},
      {"hang", "delegate *", "delegate/*/true"},
      {"hang", "delegate getDeviceName false", "hang: expected on or off, not 'false'"},
      {"hang", "delegate of", "hang: expected on or off, or a method of delegate, not 'of'"},
      {"hang", "delegate 5", "hang: expected on or off, or a method of delegate, not '5'"},
      {"hang", "delegate getDevicename", "hang: delegate has no method 'getDevicename'; did you mean getDeviceName?"},
      {"hang", "delgate", "no service is called 'delgate'; there are "},
      {"hang", "power isInteractive on x", "hang: 'x' is one word too many"},
      {"exception", "power yes", "exception: expected on or off"},
      {"error", "power EPIPE", "power//-32"},
      {"error", "power -EPIPE", "power//-32"},
      {"error", "power -32", "power//-32"},
      {"error", "power 32", "error: expected an error such as EPIPE or -32"},
      {"error", "power -4096", "error: expected an error"},
      {"delay", "power isInteractive -5", "delay: expected a number of milliseconds, or off, not '-5'"},
      {"delay", "power on", "delay: expected a number"},
      {"delay", "power 1e3", "delay: expected a number"},
      {"drop", "power 3", "power//3"},
      {"drop", "power 0", "drop: expected a number of calls, on or off"},
      {"drop", "power false", "drop: expected a number of calls, on or off"},
      {"truncate", "coordinator 0", "coordinator//0"},
  };
  for (const auto& row : rows) {
    const FaultKind& kind = faultKindCalled(row.verb);
    const std::string result = given([&] {
      const FaultTarget target = faultTargetOf(kind, wordsOf(row.words));
      return target.service->id + "/" + target.method + "/" + faultValueOf(kind, target.value).dump();
    });
    const bool isError =
        std::string(row.expected).find(": ") != std::string::npos || result.find(' ') != std::string::npos;
    EXPECT_EQ(isError ? result.substr(0, std::string(row.expected).size()) : result, row.expected) << row.words;
  }
}

TEST(Faults, ALimitStrikesOnlyTheCallsThatItSays) {
  const Json faults = Json::parse(R"({
      "getSecureSetting": {"error": -5, "delayMs": 7, "only": {"error": {"arguments": {"key": "a"}, "call": 2},
                                                               "delayMs": {"client": "kitchen"}}},
      "*": {"error": -9, "only": {"error": {"client": "77"}}}})");
  const struct {
    const char *method, *client, *key;
    pid_t pid;
    const char* struck;
  } calls[] = {
      {"getSecureSetting", "hall", "a", 1, ""},
      {"getSecureSetting", "hall", "b", 1, ""},  // another argument does not count
      {"getSecureSetting", "kitchen", "a", 1, "error=-5 delayMs=7 "},
      {"getSecureSetting", "hall", "a", 1, ""},            // its turn is over
      {"getSecureSetting", "hall", "a", 77, "error=-9 "},  // where the method's own does not strike, that of all may
      {"getDeviceName", "hall", nullptr, 77, "error=-9 "},
      {"getDeviceName", "77", nullptr, 1, "error=-9 "},
      {"getDeviceName", "hall", nullptr, 7, ""},
  };
  FaultCounts counts;
  for (const auto& each : calls) {
    Call call;
    call.method = &methodCalled(serviceCalled("delegate"), each.method);
    call.client = each.client;
    call.caller = each.pid;
    if (each.key != nullptr) call.arguments["key"] = each.key;
    call.turns = counts.turnsOf(faults, call);
    std::string struck;
    for (const Fault& fault : faultsFor(faults, call)) struck += fault.kind->key + "=" + fault.value.dump() + " ";
    EXPECT_EQ(struck, each.struck) << each.method << " of " << each.client << " " << each.pid;
  }
  // Set anew, it counts anew; another change leaves it alone.
  Json other = faults;
  other["getSecureSetting"]["delayMs"] = 8;
  Call call;
  call.method = &methodCalled(serviceCalled("delegate"), "getSecureSetting");
  call.arguments["key"] = "a";
  counts.changed(faults, other);
  EXPECT_TRUE(counts.turnsOf(other, call).empty());
  other["getSecureSetting"]["error"] = -6;
  counts.changed(faults, other);
  EXPECT_TRUE(counts.turnsOf(other, call).empty());
  EXPECT_EQ(counts.turnsOf(other, call).count("getSecureSetting/error"), 1U);
}

TEST(Faults, WhatIsShownSetsItAgainAndEndingLeavesNoLimitBehind) {
  const LimitWords limit = {{"key=it's"}, "my app", 3};
  const FaultTarget target = faultTargetOf(faultKindCalled("error"), {"delegate", "getSecureSetting", "EPIPE"});
  const Json only = limitOf(limit, target);
  EXPECT_EQ(faultInWords({{"service", "delegate"},
                          {"method", "getSecureSetting"},
                          {"fault", "error"},
                          {"value", -32},
                          {"only", only},
                          {"struck", 1}}),
            R"(delegate getSecureSetting EPIPE --argument 'key=it'\''s' --client 'my app' --call 3  # struck once)");
  EXPECT_EQ(faultInWords({{"service", "power"},
                          {"method", "*"},
                          {"fault", "exception"},
                          {"struck", 0},
                          {"value", {{"code", -1}, {"message", "a\x1b[31m"}, {"trace", ""}}}}),
            R"(power * on --code -1 --message $'a\x1b[31m'  # has not struck yet)");
  const FaultTarget every = faultTargetOf(faultKindCalled("error"), {"delegate"});
  EXPECT_EQ(given([&] {
              return limitOf({{"kay=1"}, "", {}}, target).dump();
            }),
            "--argument: getSecureSetting has no argument 'kay'; there are key; did you mean key?");
  EXPECT_EQ(given([&] {
              return limitOf({{"key"}, "", {}}, every).dump();
            }),
            "--argument: expected NAME=VALUE, not 'key'");

  Json scenario = defaultScenario();
  const auto act = [&](Json values) { perform(scenario, makeAct("fault", "delegate", values)); };
  act({{"method", "getSecureSetting"}, {"key", "error"}, {"value", -32}, {"only", only}});
  act({{"method", "*"}, {"key", "error"}, {"value", -5}});
  act({{"method", "*"}, {"key", "hang"}, {"value", true}});
  complete(scenarioShape(), scenario);  // throws where it is none
  act({{"key", "error"}});
  EXPECT_EQ(scenario["delegate"]["faults"].dump(), R"({"*":{"hang":true}})");
  act({{"method", "*"}, {"key", "hang"}});
  EXPECT_EQ(scenario["delegate"]["faults"].dump(), "{}");
}

TEST(Steps, ALineIsSplitAsAShellDoes) {
  const std::pair<const char*, Words> rows[] = {
      {"", {}},
      {"  # set name x", {}},
      {"set name 'Living room'  # why", {"set", "name", "Living room"}},
      {R"(set name "a \"b\" \n # c"d'' '')", {"set", "name", R"(a "b" \n # cd)", ""}},
      {R"(a\ b \# c#d)", {"a b", "#", "c#d"}},
      {"tab\tand return\r", {"tab", "and", "return"}},
      {"set name 'x", {"a quote ' without an end"}},
      {"set name \\", {"a backslash at the end"}},
  };
  for (const auto& row : rows) {
    Words split;
    const std::string error = given([&] {
      split = wordsOf(row.first);
      return std::string();
    });
    EXPECT_EQ(error.empty() ? split : Words{error}, row.second) << row.first;
  }
}

TEST(Help, ALineGoesOnBelowItsLastColumn) {
  EXPECT_EQ(cli::wrapped("  --json      one object a line and more words\nword\n", 40),
            "  --json      one object a line and more\n"
            "              words\n"
            "word\n");
  EXPECT_EQ(cli::wrapped("a-word-that-is-longer-than-the-line\nis one\n\n  x\n", 20),
            "a-word-that-is-longer-than-the-line\nis one\n\n  x\n");
}

}  // namespace
}  // namespace orvel::sim
