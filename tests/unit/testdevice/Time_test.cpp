// Virtual time and the threads of the client: it passes while they wait for each other, and never while one works.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "Fixture.h"
#include "orvel/CallStatus.h"
#include "orvel/Links.h"
#include "orvel/Service.h"
#include "orvel/testing/TestDevice.h"

namespace orvel::testing {
namespace {

using namespace std::chrono_literals;
using service_apis::CallStatus;
using service_apis::lastCall;
using service_apis::Link;
using service_apis::LinkState;
using service_apis::Service;
using ::testing::ElementsAre;

TEST(VirtualTimeTest, ACallThatHangsEndsWhileACallbackWaitsForTheClient) {
  Session s;
  int asked = 0;
  s.device.eventResult("TIMEOUT", 1s);
  EXPECT_TRUE(client().sendEvent("A", "b", "", "", "", "", "", false, "", [&](const auto&...) {
    client().getCountryOfResidence();
    ++asked;
  }));
  s.device.hang("power");
  EXPECT_FALSE(client().isScreenOn());
  EXPECT_EQ(s.device.elapsed(), 30s);
  EXPECT_TRUE(s.device.settle());
  EXPECT_EQ(asked, 1);
}

TEST(VirtualTimeTest, CallbacksOfLinksWaitForTheirTurnBehindOneThatCallsASlowService) {
  TestDevice device;
  device.delay("delegate", 100ms);
  int asked = 0;
  const auto links = client().subscribeLink([&](const Link& link) {
    if (link.state == LinkState::kUp && client().getDeviceName() == "Kitchen Display") ++asked;
  });
  ASSERT_TRUE(client().start({{Service::kDelegate}}));
  EXPECT_TRUE(device.settle());
  EXPECT_GE(asked, 1) << "services that were there before the delegate could not ask it";
  EXPECT_EQ(device.elapsed(), asked * 100ms);
}

TEST(VirtualTimeTest, SettlingWaitsForACallbackAlthoughAServiceWasGivenUpBefore) {
  Session s;
  int asked = 0;
  EXPECT_TRUE(client().registerForNetworkConnectivityChange([&](bool) {
    client().isScreenOn();
    ++asked;
  }));
  s.device.kill("delegate");
  s.device.advance(400s);
  s.device.hang("power");
  s.device.set("networkConnected", "false");
  EXPECT_TRUE(s.device.settle());
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(s.device.elapsed(), 430s);
}

TEST(VirtualTimeTest, ANotificationWaitsUntilASlowServiceHasTakenEverythingAgain) {
  Session s;
  Texts heard;
  EXPECT_TRUE(s.hear_names());
  EXPECT_TRUE(client().registerForNetworkConnectivityChange([&](bool) { heard.emplace_back("network"); }));
  s.device.kill("delegate");
  s.device.advance(400s);
  s.device.delay("delegate", 100ms);
  s.device.restart("delegate");
  const auto links =
      client().subscribeLink(Service::kDelegate, [&](const Link& link) { heard.emplace_back(nameOf(link.state)); });
  s.device.at(s.device.elapsed() + 50ms, [&] { s.device.set("networkConnected", "false"); });
  EXPECT_TRUE(client().rebind(Service::kDelegate));
  EXPECT_TRUE(s.device.settle());
  EXPECT_THAT(heard, ElementsAre("given up", "away", "up", "network"));
}

// ---- Acts ----

TEST(ActsTest, ChangeTheDeviceWhileTheClientWaits) {
  TestDevice device(R"({"delegate": {"alive": false}, "power": {"alive": false}})");
  device.at(50ms, [&] { device.restart("delegate"); });
  device.at(7s, [&] {
    device.restart("power");
    EXPECT_EQ(client().getDeviceName(), "Kitchen Display") << "waits for initialize(), whose lock it needs";
  });
  EXPECT_TRUE(client().initialize());
  EXPECT_EQ(device.elapsed(), 8s) << "two retries after 2 s, one after 4 s";
  EXPECT_TRUE(device.settle());
  EXPECT_EQ(client().state(Service::kPower).state, LinkState::kUp);
}

TEST(ActsTest, InterruptEveryCallThatWaits) {
  const auto require_delegate = [] { return client().start({{Service::kDelegate}, 60s}); };
  const struct {
    const char* name;
    std::function<bool()> wait;
    const char* why = "shutdown() has interrupted";
  } rows[] = {
      {"initialize", [] { return client().initialize(); }},
      {"start", require_delegate},
      {"waitFor",
       [] {
         EXPECT_TRUE(client().start({{}, {}, /*wait=*/false}));
         return client().waitFor(Service::kDelegate, LinkState::kUp, 60s);
       }},
      {"isScreenOn",
       [] {
         EXPECT_TRUE(client().start({{Service::kPower}}));
         return client().isScreenOn();
       },
       "shutdown() has ended the call"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    TestDevice device(R"({"delegate": {"alive": false}, "power": {"faults": {"*": {"hang": true}}}})");
    device.at(1s, [] { client().shutdown(); });
    EXPECT_FALSE(row.wait());
    EXPECT_EQ(lastCall().text, row.why);
    EXPECT_EQ(lastCall().code, CallStatus::Code::kNotInitialised);
    EXPECT_EQ(device.elapsed(), 1s);
    EXPECT_TRUE(device.settle());
    EXPECT_EQ(client().state(Service::kPower).state, LinkState::kStopped);
    device.restart("delegate");
    EXPECT_TRUE(client().initialize()) << "and it can be tried again";
  }
}

TEST(ActsTest, RunInTheOrderOfTheirTimesAndEndWithTheDevice) {
  Texts order;
  const auto held = std::make_shared<int>();
  {
    TestDevice device;
    const auto note = [&](const char* what) { return [&, what] { order.emplace_back(what); }; };
    device.at(2s, note("second"));
    device.at(2s, note("third"));
    device.at(1s, [&] {
      note("first")();
      device.at(0s, note("late"));
      device.at(3s, note("last"));
      EXPECT_THROW(device.settle(), std::logic_error);
    });
    device.at(2h, [held] { ADD_FAILURE() << "not due"; });
    device.advance(2s);
    EXPECT_THAT(order, ElementsAre("first", "late", "second", "third"));
    EXPECT_FALSE(device.settle()) << "the last one is more than an hour away";
    EXPECT_THAT(order, ElementsAre("first", "late", "second", "third", "last"));
    device.at(0s, [&] { device.restart("delgate"); });
    EXPECT_THROW(device.advance(0s), std::invalid_argument) << "what it threw";
    device.at(0s, [] { client().initialize(); });  // waits when the device ends
    device.kill("delegate");
    device.advance(0s);
  }
  EXPECT_EQ(held.use_count(), 1) << "dropped";
  EXPECT_EQ(client().state(Service::kPower).state, LinkState::kStopped);
}

}  // namespace
}  // namespace orvel::testing
