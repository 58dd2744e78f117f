// Virtual time and the threads of the client: it passes while they wait for each other, and never while one works.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <string>

#include "Fixture.h"
#include "orvel/Links.h"
#include "orvel/Service.h"
#include "orvel/testing/TestDevice.h"

namespace orvel::testing {
namespace {

using namespace std::chrono_literals;
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
  EXPECT_EQ(asked, 8);
  EXPECT_EQ(device.elapsed(), 800ms);
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

}  // namespace
}  // namespace orvel::testing
