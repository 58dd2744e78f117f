// The test kit, as a client's suite sees it: what it promises about time, threads, deaths and its own cleanliness.
#include "orvel/testing/TestDevice.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Fixture.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::ThrowsMessage;

TEST(TestDeviceTest, ADeviceKnowsNothingOfTheOneBefore) {
  {
    Session before(R"({"delegate": {"name": "First"}})");
    EXPECT_TRUE(before.hear_names());
    before.device.hang("power");
    before.device.kill("metrics");
  }
  TestDevice device;
  EXPECT_EQ(client().getDeviceName(), "") << "the client was shut down";
  ASSERT_TRUE(client().initialize());
  EXPECT_EQ(client().getDeviceName(), "Kitchen Display");
  EXPECT_TRUE(client().isScreenOn());
  device.set("name", "Second");
  EXPECT_TRUE(device.settle());
  EXPECT_EQ(device.registrations().size(), 0U);
  EXPECT_EQ(device.notifications().size(), 0U);
  EXPECT_EQ(device.elapsed(), 0s);
}

TEST(TestDeviceTest, TimeStandsStillUntilAThreadWaitsForIt) {
  Session s;
  EXPECT_TRUE(s.hear_names());
  for (int round = 1; round <= 20; ++round) {
    s.device.kill("delegate");
    EXPECT_EQ(client().getDeviceName(), "");
    s.restart("delegate");
    EXPECT_EQ(s.device.elapsed(), round * 6s) << "the pause after a death, and nothing else";
    EXPECT_THAT(s.registered(), ElementsAre(std::string("delegate.") + kRegisterForNames)) << "exactly once";
  }
}

TEST(TestDeviceTest, AClientThatWaitsForADeadServiceIsLeftWaiting) {
  for (const char* service : {"delegate", "connectivity"}) {  // looked up in the two ways that there are
    Session s;
    s.kill(service);
    EXPECT_LT(s.device.elapsed(), 10s) << service;
    EXPECT_TRUE(s.device.settle()) << "twice is no different";
    s.device.advance(100s);
    s.restart(service);
    EXPECT_EQ(s.device.calls().size(), 0U);
    EXPECT_EQ(client().getDeviceName(), "Kitchen Display") << service;
    EXPECT_TRUE(client().registerForNetworkConnectivityChange([](bool) {})) << service;
  }
}

TEST(TestDeviceTest, FaultsAreWhatTheyAreOnADeviceAndEnd) {
  const struct {
    void (*strike)(TestDevice& device);
    std::chrono::nanoseconds duration;  // of the call that it strikes
    std::string failure;
    bool breaks;  // the connection
  } rows[] = {
      {[](auto& device) { device.hang("delegate", "getDeviceName"); }, 30s, "hangs", false},
      {[](auto& device) { device.delay("delegate", 500ms); }, 500ms, "", false},
      {[](auto& device) { device.exception("delegate"); }, 0s, "exception -5: told to fail by orvel-sim", false},
      {[](auto& device) { device.error("delegate", -71); }, 0s, "error -71", false},
      {[](auto& device) { device.truncate("delegate", 8); }, 0s, "cut to 8 bytes", false},
      {[](auto& device) { device.drop("delegate", "getDeviceName", 1); }, 0s, "drops", true},
  };
  for (const auto& fault : rows) {
    SCOPED_TRACE(fault.failure);
    Session s;
    EXPECT_TRUE(s.hear_names());
    fault.strike(s.device);
    EXPECT_EQ(client().getDeviceName(), fault.duration == 500ms ? "Kitchen Display" : "");
    EXPECT_EQ(s.device.elapsed(), fault.duration);
    s.repair("delegate");
    EXPECT_EQ(s.device.calls("delegate", kRegisterForNames).size(), fault.breaks ? 2U : 1U) << "bound again";
    EXPECT_EQ(client().getDeviceName(), "Kitchen Display");
    EXPECT_EQ(s.registered().size(), 1U);
    const std::vector<Call> calls = s.device.calls("delegate", "getDeviceName");
    ASSERT_GE(calls.size(), 2U);
    EXPECT_EQ(calls[0].failure, fault.failure);
    EXPECT_EQ(calls.back().reply, R"("Kitchen Display")");
    s.expect_name_heard();
  }
}

// The slow call is a registration here: the client has been told that it failed, so it must not hear of anything.
TEST(TestDeviceTest, ARegistrationThatIsTakenTooLateIsTakenBack) {
  Session s;
  s.device.delay("delegate", 40s);
  EXPECT_FALSE(s.hear_names());
  s.device.repair("delegate");
  s.device.advance(20s);
  EXPECT_THAT(s.registered(), ElementsAre());
  EXPECT_TRUE(s.hear_names());
  s.expect_name_heard();
}

TEST(TestDeviceTest, AReplayThatHangsEndsAndTheNextOneIsMade) {
  Session s;
  EXPECT_TRUE(s.hear_names());
  s.device.kill("delegate");
  s.device.hang("delegate", kRegisterForNames);
  s.device.restart("delegate");
  s.device.advance(20s);
  EXPECT_THAT(s.device.calls("delegate", kRegisterForNames).back().failure, "hangs");
  s.repair("delegate");
  s.restart("delegate");
  s.expect_name_heard();
}

TEST(TestDeviceTest, AServiceThatFlapsIsRegisteredWithOnceWhenItStays) {
  Session s;
  EXPECT_TRUE(s.hear_names());
  s.device.flap("delegate", 20s, 5);
  EXPECT_TRUE(s.device.settle());
  EXPECT_GE(s.device.elapsed(), 100s);
  s.device.flap("delegate", 2s);
  EXPECT_TRUE(s.device.settle()) << "does not wait for a series without an end";
  s.device.advance(60s);
  s.repair("delegate");
  EXPECT_EQ(s.registered().size(), 1U);
  s.expect_name_heard();
}

TEST(TestDeviceTest, WhatTheClientEndsIsNotARegistrationAnyMore) {
  Session s;
  EXPECT_TRUE(client().registerForNetworkConnectivityChange([](bool) {}));
  EXPECT_TRUE(client().registerForDirective("Alerts", [](const auto&...) {}));
  EXPECT_THAT(s.registered(), ElementsAre("connectivity.registerDefaultNetworkCallback", "coordinator.directive"));
  EXPECT_TRUE(client().unregisterForNetworkConnectivityChange());
  EXPECT_THAT(s.registered(), ElementsAre("coordinator.directive"));
  s.device.directive("Alerts", {"1"});
  EXPECT_TRUE(s.device.settle());
  client().shutdown();
  EXPECT_THAT(s.registered(), ElementsAre());
  EXPECT_THROW(s.device.directive("Alerts", {"2"}), std::invalid_argument);
  EXPECT_EQ(s.device.broadcast("android.intent.action.SCREEN_ON"), 0);
}

TEST(TestDeviceTest, ANamespaceThatAnotherProcessHasIsItsOwn) {
  Session s;
  s.device.holdNamespace("Alerts");
  const auto ignore = [](auto&&...) {};
  EXPECT_FALSE(client().registerForDirective("Alerts", ignore));
  EXPECT_EQ(service_apis::lastCall().error, -EADDRINUSE) << "the host runtime's code";
  EXPECT_FALSE(client().subscribeDirective("Alerts", ignore));
  EXPECT_EQ(service_apis::lastCall().text, "the call failed: Address already in use (-98)");
  EXPECT_THROW(s.device.directive("Alerts", {"1"}), std::invalid_argument);
  s.device.releaseNamespace("Alerts");
  const auto alerts = client().subscribeDirective("Alerts", ignore);
  EXPECT_TRUE(alerts) << service_apis::lastCall().text;
  EXPECT_THAT([&] { s.device.holdNamespace("Alerts"); },
              ThrowsMessage<std::invalid_argument>(HasSubstr("the client has the namespace Alerts itself")));
  EXPECT_THROW(s.device.releaseNamespace("Alerts"), std::invalid_argument);
}

TEST(TestDeviceTest, ARecordOfWhatBothSidesSaidInItsOrder) {
  Session s;
  const auto ask = [](auto&&...) { client().getDeviceName(); };
  EXPECT_TRUE(client().registerForDeviceNameChange(ask));
  EXPECT_TRUE(client().registerForSecureSettingIntChange("volume_alarm", 0, ask));
  s.device.set("name", "Hall");
  s.device.set({"setting", "volume_alarm"}, "9");  // answered, and so recorded, after its callback has asked
  EXPECT_TRUE(s.device.settle());
  const std::vector<Call> asked = s.device.calls("delegate", "getDeviceName");
  const std::vector<Notification> told = s.device.notifications();
  ASSERT_THAT(asked, SizeIs(2));
  ASSERT_THAT(told, ElementsAre(Field(&Notification::name, "broadcast"), Field(&Notification::name, "settingChanged")));
  for (const std::size_t i : {0U, 1U}) EXPECT_LT(told[i].sequence, asked[i].sequence) << told[i].name;
  EXPECT_EQ(told[1].arguments, R"({"key":"volume_alarm","value":"9"})");

  s.device.advance(2s);
  EXPECT_EQ(client().getSecureSettingInt("volume_alarm", 0), 9);
  const Call last = s.device.calls("delegate", "getSecureSetting").back();
  EXPECT_EQ(last.arguments + " " + last.reply, R"({"key":"volume_alarm"} "9")");
  EXPECT_EQ(last.time - told[1].time, 2s);
}

TEST(TestDeviceTest, WhatACallbackThrowsIsInTheRecordOfWhatItWasTold) {
  Session s;
  const auto refuse = [](const char* why) { return [why](auto&&...) { throw std::runtime_error(why); }; };
  EXPECT_TRUE(client().registerForDeviceNameChange(refuse("bad name")));
  EXPECT_TRUE(client().registerForSecureSettingIntChange("volume_alarm", 0, refuse("bad volume")));
  EXPECT_TRUE(client().registerForNetworkConnectivityChange(refuse("bad network")));
  EXPECT_TRUE(client().registerForDirective("Alerts", refuse("bad alert")));
  EXPECT_TRUE(client().sendEvent("A", "b", "", "", "", "", "", false, "", refuse("bad result")));
  EXPECT_TRUE(s.device.settle());
  s.device.set("name", "Hall");
  s.device.set({"setting", "volume_alarm"}, "9");
  s.device.set("networkConnected", "false");
  s.device.directive("Alerts", {"1"});
  EXPECT_TRUE(s.device.settle());
  Texts told;
  for (const Notification& each : s.device.notifications()) told.push_back(each.name + ": " + each.failure);
  EXPECT_THAT(told, ElementsAre("eventResult: exception: bad result", "broadcast: exception: bad name",
                                "settingChanged: exception: bad volume", "networkLost: exception: bad network",
                                "directive: exception: bad alert"));
}

TEST(TestDeviceTest, CallbacksMayUseClientAndDeviceButNotWait) {
  Session s;
  Texts heard;
  const auto hear = [&](const std::string&, const std::string& package) {
    heard.push_back(package + " " + client().getDeviceName());
    if (heard.size() == 1) s.device.package("install", "com.example.second");
    EXPECT_THROW(s.device.settle(), std::logic_error);
  };
  EXPECT_TRUE(client().registerForPackageAction("android.intent.action.PACKAGE_ADDED", {}, {"package"}, hear));
  s.device.package("install", "com.example.first", R"({"versionCode": 7})");
  EXPECT_TRUE(s.device.settle());
  EXPECT_THAT(heard, ElementsAre("com.example.first Kitchen Display", "com.example.second Kitchen Display"));
  EXPECT_EQ(client().getPackageVersionCode("com.example.first", 0), "7");
}

TEST(TestDeviceTest, WhatACallbackHoldsAndAWaitOfTheRunLoopEndWithoutADeadlock) {
  // As it ends, it calls the client, whose lock a registration in progress may hold.
  struct Asks {
    ~Asks() { client().getDeviceName(); }
  };
  const auto send = [] {
    return client().sendEvent("A", "b", "", "", "", "", "", false, "",
                              [held = std::make_shared<Asks>()](const auto&...) {});
  };
  Session s;
  s.device.exception("events", "sendEvent");
  EXPECT_FALSE(send());
  s.device.repair("events");
  EXPECT_TRUE(send());
  s.kill("delegate");
  client().shutdown();  // while the run loop sleeps
  EXPECT_LT(s.device.elapsed(), 10s);
}

TEST(TestDeviceTest, WhatCannotBeIsRefusedInTheWordsOfTheCommandLine) {
  TestDevice device;
  const struct {
    std::function<void()> ask;
    const char* text;
  } rows[] = {
      {[&] { device.set("nmae", "x"); }, "no value is called 'nmae'"},
      {[&] { device.hang("delegate", "getName"); }, "no method of delegate is called 'getName'"},
      {[&] { device.kill("power"), device.kill("power"); }, "power is dead already"},
      {[&] { device.package("install", "a", "7"); }, "expected a JSON object, not '7'"},
      {[&] { device.eventResult("NEVER"); }, "'NEVER' is not a result"},
      {[&] { device.error("power", 7); }, "/power/faults/*/error: expected a whole number"},
  };
  for (const auto& row : rows) {
    EXPECT_THAT(row.ask, ThrowsMessage<std::invalid_argument>(HasSubstr(row.text)));
  }
  EXPECT_EQ(device.get("name"), "Kitchen Display");
}

TEST(TestDeviceTest, OnlyARightScenarioMakesADeviceAndOnlyOneAtATime) {
  for (const char* scenario : {R"({"delegate": {"nmae": "x"}})", "{", "no-such-file.json", "no-such-name"}) {
    EXPECT_THROW(TestDevice{scenario}, std::invalid_argument) << scenario;
    EXPECT_FALSE(client().initialize());
  }
  {
    const TestDevice device("asleep");  // the place was left free
    EXPECT_THAT([] { TestDevice{}; }, ThrowsMessage<std::logic_error>(HasSubstr("another one in this process")));
    EXPECT_TRUE(client().initialize()) << "the first goes on";
    EXPECT_FALSE(client().isScreenOn());
  }
  EXPECT_FALSE(client().initialize()) << "it has ended";
}

}  // namespace
}  // namespace orvel::testing
