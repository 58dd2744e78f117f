// The test kit, as a client's suite sees it: what it promises about time, threads, deaths and its own cleanliness.
#include "orvel/testing/TestDevice.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orvel/OrvelDelegateClient.h"

namespace orvel::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Texts = std::vector<std::string>;

class TestDeviceTest : public ::testing::Test {
 protected:
  service_apis::OrvelDelegateClient& m_client = service_apis::OrvelDelegateClient::getClient();

  // What the client registered, one line each.
  static Texts registered(const TestDevice& device) {
    Texts lines;
    for (const Registration& each : device.registrations()) lines.push_back(each.service + "." + each.method);
    return lines;
  }
  // Subscribes to the device's name; the names that come.
  void hear_names(Texts& names) {
    EXPECT_TRUE(m_client.registerForDeviceNameChange([&names](std::string name) { names.push_back(std::move(name)); }));
  }
};

TEST_F(TestDeviceTest, WithoutADeviceThereIsNothingToInitialise) {
  EXPECT_FALSE(m_client.initialize());
  { const TestDevice device; }
  EXPECT_FALSE(m_client.initialize());
}

TEST_F(TestDeviceTest, ADeviceKnowsNothingOfTheOneBefore) {
  Texts names;
  {
    TestDevice device(R"({"delegate": {"name": "First"}})");
    ASSERT_TRUE(m_client.initialize());
    hear_names(names);
    device.hang("power");
    device.kill("metrics");
  }
  TestDevice device;
  EXPECT_EQ(m_client.getDeviceName(), "") << "the client was shut down";
  ASSERT_TRUE(m_client.initialize());
  EXPECT_EQ(m_client.getDeviceName(), "Kitchen Display");
  EXPECT_TRUE(m_client.isScreenOn());
  device.set("name", "Second");
  EXPECT_TRUE(device.settle());
  EXPECT_THAT(names, ElementsAre());
  EXPECT_THAT(registered(device), ElementsAre());
  EXPECT_EQ(device.elapsed(), 0s);
}

TEST_F(TestDeviceTest, TimeStandsStillUntilSomebodyWaitsForIt) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  Texts names;
  hear_names(names);
  for (int round = 1; round <= 20; ++round) {
    device.kill("delegate");
    EXPECT_EQ(m_client.getDeviceName(), "");
    device.restart("delegate");
    EXPECT_TRUE(device.settle());
    EXPECT_EQ(device.elapsed(), round * 6s) << "the pause after a death, and nothing else";
    EXPECT_THAT(registered(device), ElementsAre("delegate.registerForBroadcastWithDataTypeOrScheme")) << "exactly once";
  }
}

TEST_F(TestDeviceTest, WhoWaitsForADeadServiceIsLeftWaiting) {
  for (const char* service : {"delegate", "connectivity"}) {  // looked up in the two ways that there are
    TestDevice device;
    ASSERT_TRUE(m_client.initialize());
    device.kill(service);
    EXPECT_TRUE(device.settle());
    EXPECT_LT(device.elapsed(), 10s) << service;
    EXPECT_TRUE(device.settle()) << "twice is no different";
    device.advance(100s);
    device.restart(service);
    EXPECT_TRUE(device.settle());
    EXPECT_EQ(device.calls().size(), 0U);
    EXPECT_TRUE(m_client.getDeviceName() == "Kitchen Display" &&
                m_client.registerForNetworkConnectivityChange([](bool) {}))
        << service;
  }
}

TEST_F(TestDeviceTest, AClientGivesUpWhenItsTimeIsOver) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  device.kill("delegate");
  device.advance(400s);
  device.restart("delegate");
  EXPECT_TRUE(device.settle());
  EXPECT_EQ(device.elapsed(), 400s);
  EXPECT_EQ(m_client.getDeviceName(), "");
  EXPECT_TRUE(m_client.isScreenOn()) << "the other services are none the worse";
}

TEST_F(TestDeviceTest, AServiceThatIsDeadFromTheBeginningIsGivenUp) {
  TestDevice device(R"({"power": {"alive": false}})");
  EXPECT_TRUE(m_client.initialize());
  EXPECT_GT(device.elapsed(), 300s);
  EXPECT_FALSE(m_client.isScreenOn());
  EXPECT_EQ(m_client.getDeviceName(), "Kitchen Display");
}

struct Fault {
  const char* name;
  void (*strike)(TestDevice& device);
  std::chrono::nanoseconds duration;  // of the call that it strikes
  std::string failure;
  bool breaks;  // the connection
};

TEST_F(TestDeviceTest, FaultsAreWhatTheyAreOnADeviceAndEnd) {
  const Fault faults[] = {
      {"hang", [](auto& device) { device.hang("delegate", "getDeviceName"); }, 30s, "hangs", false},
      {"delay", [](auto& device) { device.delay("delegate", 500ms); }, 500ms, "", false},
      {"longer than a call may take", [](auto& device) { device.delay("delegate", 40s); }, 30s, "", false},
      {"exception", [](auto& device) { device.exception("delegate"); }, 0s, "exception -5: told to fail by orvel-sim",
       false},
      {"error", [](auto& device) { device.error("delegate", -71); }, 0s, "error -71", false},
      {"truncated", [](auto& device) { device.truncate("delegate", 8); }, 0s, "cut to 8 bytes", false},
      {"drop", [](auto& device) { device.drop("delegate", "getDeviceName", 1); }, 0s, "drops", true},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    TestDevice device;
    ASSERT_TRUE(m_client.initialize());
    Texts names;
    hear_names(names);
    fault.strike(device);
    const std::string name = m_client.getDeviceName();
    EXPECT_EQ(name, fault.duration == 500ms ? "Kitchen Display" : "");
    EXPECT_EQ(device.elapsed(), fault.duration);
    device.repair("delegate");
    EXPECT_TRUE(device.settle());
    EXPECT_EQ(device.calls("delegate", "registerForBroadcastWithDataTypeOrScheme").size(), fault.breaks ? 2U : 1U)
        << "bound again";
    EXPECT_EQ(m_client.getDeviceName(), "Kitchen Display");
    EXPECT_EQ(registered(device).size(), 1U);
    const std::vector<Call> calls = device.calls("delegate", "getDeviceName");
    ASSERT_GE(calls.size(), 2U);
    EXPECT_EQ(calls[0].failure, fault.failure);
    EXPECT_EQ(calls.back().reply, R"("Kitchen Display")");
    device.set("name", "Hall");
    EXPECT_TRUE(device.settle());
    EXPECT_THAT(names, ElementsAre("Hall"));
  }
}

// The slow call is a registration here: the client has been told that it failed, so it must not hear of anything.
TEST_F(TestDeviceTest, ARegistrationThatIsTakenTooLateIsTakenBack) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  Texts names;
  device.delay("delegate", 40s);
  EXPECT_FALSE(m_client.registerForDeviceNameChange([&names](const std::string& name) { names.push_back(name); }));
  device.repair("delegate");
  device.advance(20s);
  EXPECT_THAT(registered(device), ElementsAre());
  hear_names(names);
  device.set("name", "Hall");
  EXPECT_TRUE(device.settle());
  EXPECT_THAT(names, ElementsAre("Hall"));
}

TEST_F(TestDeviceTest, AReplayThatHangsEndsAndTheNextOneIsMade) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  Texts names;
  hear_names(names);
  device.kill("delegate");
  device.hang("delegate", "registerForBroadcastWithDataTypeOrScheme");
  device.restart("delegate");
  device.advance(20s);
  EXPECT_THAT(device.calls("delegate", "registerForBroadcastWithDataTypeOrScheme").back().failure, "hangs");
  device.repair("delegate");
  EXPECT_TRUE(device.settle());
  device.kill("delegate");
  device.restart("delegate");
  EXPECT_TRUE(device.settle());
  device.set("name", "Hall");
  EXPECT_TRUE(device.settle());
  EXPECT_THAT(names, ElementsAre("Hall"));
}

TEST_F(TestDeviceTest, AServiceThatFlapsIsRegisteredWithOnceWhenItStays) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  Texts names;
  hear_names(names);
  device.flap("delegate", 20s, 5);
  EXPECT_TRUE(device.settle());
  EXPECT_GE(device.elapsed(), 100s);
  EXPECT_EQ(registered(device).size(), 1U);
  device.flap("delegate", 2s);
  device.advance(60s);
  device.repair("delegate");
  EXPECT_TRUE(device.settle());
  device.set("name", "Hall");
  EXPECT_TRUE(device.settle());
  EXPECT_THAT(names, ElementsAre("Hall"));
}

TEST_F(TestDeviceTest, WhatTheClientEndsIsNoRegistrationAnyMore) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  EXPECT_TRUE(m_client.registerForNetworkConnectivityChange([](bool) {}));
  EXPECT_TRUE(m_client.registerForDirective("Alerts", [](const auto&...) {}));
  EXPECT_THAT(registered(device), ElementsAre("connectivity.registerDefaultNetworkCallback", "coordinator.directive"));
  EXPECT_TRUE(m_client.unregisterForNetworkConnectivityChange());
  EXPECT_THAT(registered(device), ElementsAre("coordinator.directive"));
  device.directive("Alerts", {"1"});
  EXPECT_TRUE(device.settle());
  m_client.shutdown();
  EXPECT_THAT(registered(device), ElementsAre());
  EXPECT_THROW(device.directive("Alerts", {"2"}), std::invalid_argument);
  EXPECT_EQ(device.broadcast("android.intent.action.SCREEN_ON"), 0);
}

TEST_F(TestDeviceTest, ARecordOfWhatBothSidesSaid) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  EXPECT_TRUE(m_client.registerForSecureSettingIntChange("volume_alarm", 0, [](int) {}));
  device.set({"setting", "volume_alarm"}, "9");
  EXPECT_TRUE(device.settle());
  device.advance(2s);
  EXPECT_EQ(m_client.getSecureSettingInt("volume_alarm", 0), 9);
  const Call asked = device.calls("delegate", "getSecureSetting").back();
  EXPECT_EQ(asked.time, 2s);
  EXPECT_EQ(asked.arguments, R"({"key":"volume_alarm"})");
  EXPECT_EQ(asked.reply, R"("9")");
  ASSERT_EQ(device.notifications().size(), 1U);
  EXPECT_EQ(device.notifications()[0].name, "settingChanged");
  EXPECT_EQ(device.notifications()[0].arguments, R"({"key":"volume_alarm","value":"9"})");
  EXPECT_EQ(device.notifications()[0].time, 0s);
  EXPECT_EQ(device.get({"settings", "volume_alarm"}), "9");
}

TEST_F(TestDeviceTest, WhatACallbackAsksStandsAfterWhatItWasTold) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  const auto ask = [this](auto&&...) { m_client.getDeviceName(); };
  EXPECT_TRUE(m_client.registerForDeviceNameChange(ask));
  EXPECT_TRUE(m_client.registerForSecureSettingIntChange("volume_alarm", 0, ask));
  device.set("name", "Hall");
  device.set({"setting", "volume_alarm"}, "9");  // answered, and so recorded, after its callback has asked
  EXPECT_TRUE(device.settle());
  std::map<std::uint64_t, std::string> events;
  for (const Call& call : device.calls()) events[call.sequence] = call.method;
  for (const Notification& told : device.notifications()) events[told.sequence] = told.name;
  Texts order;
  for (const auto& [sequence, name] : events) order.push_back(name);
  order.erase(order.begin(), order.begin() + 2);  // the registrations
  EXPECT_THAT(order, AnyOf(ElementsAre("broadcast", "settingChanged", "getDeviceName", "getDeviceName"),
                           ElementsAre("broadcast", "getDeviceName", "settingChanged", "getDeviceName")));
}

TEST_F(TestDeviceTest, WhatACallbackThrowsIsInTheRecordOfWhatItWasTold) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  const auto refuse = [](const char* why) { return [why](auto&&...) { throw std::runtime_error(why); }; };
  EXPECT_TRUE(m_client.registerForDeviceNameChange(refuse("bad name")));
  EXPECT_TRUE(m_client.registerForSecureSettingIntChange("volume_alarm", 0, refuse("bad volume")));
  EXPECT_TRUE(m_client.registerForNetworkConnectivityChange(refuse("bad network")));
  EXPECT_TRUE(m_client.registerForDirective("Alerts", refuse("bad alert")));
  EXPECT_TRUE(m_client.sendEvent("A", "b", "", "", "", "", "", false, "", refuse("bad result")));
  EXPECT_TRUE(m_client.registerForScreenStateChange([](bool) {}));
  EXPECT_TRUE(device.settle());
  device.set("name", "Hall");
  device.set({"setting", "volume_alarm"}, "9");
  device.set("networkConnected", "false");
  device.directive("Alerts", {"1"});
  device.screen(false);
  EXPECT_TRUE(device.settle());
  Texts told;
  for (const Notification& each : device.notifications()) told.push_back(each.name + ": " + each.failure);
  EXPECT_THAT(told, ElementsAre("eventResult: exception: bad result", "broadcast: exception: bad name",
                                "settingChanged: exception: bad volume", "networkLost: exception: bad network",
                                "directive: exception: bad alert", "broadcast: "));
}

TEST_F(TestDeviceTest, CallbacksMayUseClientAndDeviceButNotWait) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  Texts heard;
  EXPECT_TRUE(m_client.registerForPackageAction("android.intent.action.PACKAGE_ADDED", {}, {"package"},
                                                [&](const std::string&, const std::string& package) {
                                                  heard.push_back(package + " " + m_client.getDeviceName());
                                                  if (heard.size() == 1)
                                                    device.package("install", "com.example.second");
                                                  EXPECT_THROW(device.settle(), std::logic_error);
                                                }));
  device.package("install", "com.example.first", R"({"versionCode": 7})");
  EXPECT_TRUE(device.settle());
  EXPECT_THAT(heard, ElementsAre("com.example.first Kitchen Display", "com.example.second Kitchen Display"));
  EXPECT_EQ(m_client.getPackageVersionCode("com.example.first", 0), "7");
}

TEST_F(TestDeviceTest, WhatACallbackHoldsEndsWithoutADeadlock) {
  // As it ends, it calls the client, whose lock a registration in progress may hold.
  struct Asks {
    ~Asks() { service_apis::OrvelDelegateClient::getClient().getDeviceName(); }
  };
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  device.exception("events", "sendEvent");
  m_client.sendEvent("A", "b", "", "", "", "", "", false, "", [held = std::make_shared<Asks>()](const auto&...) {});
  device.repair("events");
  EXPECT_TRUE(m_client.sendEvent("A", "b", "", "", "", "", "", false, "",
                                 [held = std::make_shared<Asks>()](const auto&...) {}));
  EXPECT_TRUE(device.settle());
  m_client.shutdown();
}

TEST_F(TestDeviceTest, ShutdownEndsAWaitOfAnotherThread) {
  TestDevice device;
  ASSERT_TRUE(m_client.initialize());
  device.kill("delegate");
  EXPECT_TRUE(device.settle());  // the run loop sleeps
  std::thread stopper([&] { m_client.shutdown(); });
  stopper.join();
  EXPECT_LT(device.elapsed(), 10s);
}

TEST_F(TestDeviceTest, WhatCannotBeIsRefusedInTheWordsOfTheCommandLine) {
  TestDevice device;
  const struct {
    std::function<void()> ask;
    const char* text;
  } rows[] = {
      {[&] { device.set("nmae", "x"); }, "no value is called nmae"},
      {[&] {
         device.set({"power", "screenOn"}, "maybe");
       },
       "/power/screenOn: expected true or false"},
      {[&] { device.kill("delegat"); }, "no service is called delegat"},
      {[&] { device.hang("delegate", "getName"); }, "no method of delegate is called getName"},
      {[&] { device.kill("power"), device.kill("power"); }, "power is dead already"},
      {[&] { device.package("instal", "a"); }, "'instal' is none of install, replace, remove"},
      {[&] { device.package("install", "a", "7"); }, "expected a JSON object, not '7'"},
      {[&] { device.package("remove", "a"); }, "package a does not exist"},
      {[&] { device.directive("Alerts", {}); }, "no client holds the namespace Alerts"},
      {[&] { device.eventResult("NEVER"); }, "'NEVER' is not a result"},
      {[&] { device.error("power", 7); }, "/power/faults/*/error: expected a whole number"},
  };
  for (const auto& row : rows) {
    try {
      row.ask();
      ADD_FAILURE() << "not refused: " << row.text;
    } catch (const std::invalid_argument& refused) {
      EXPECT_THAT(refused.what(), HasSubstr(row.text));
    }
  }
  EXPECT_EQ(device.get("name"), "Kitchen Display");
}

TEST_F(TestDeviceTest, AScenarioThatShipsIsKnownByItsName) {
  TestDevice device("asleep");
  ASSERT_TRUE(m_client.initialize());
  EXPECT_FALSE(m_client.isScreenOn());
}

TEST_F(TestDeviceTest, AWrongScenarioMakesNoDevice) {
  for (const char* scenario : {R"({"delegate": {"nmae": "x"}})", "{", "no-such-file.json", "no-such-name"}) {
    EXPECT_THROW(TestDevice{scenario}, std::invalid_argument) << scenario;
    EXPECT_FALSE(m_client.initialize());
  }
  const TestDevice device;  // its place was left free
  EXPECT_TRUE(m_client.initialize());
}

TEST_F(TestDeviceTest, ASecondDeviceIsRefusedAndTheFirstGoesOn) {
  const TestDevice device;
  try {
    const TestDevice second;
    ADD_FAILURE() << "not refused";
  } catch (const std::logic_error& refused) {
    EXPECT_THAT(refused.what(), HasSubstr("another one in this process"));
  }
  EXPECT_TRUE(m_client.initialize());
}

}  // namespace
}  // namespace orvel::testing
