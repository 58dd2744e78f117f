// How the client stands with its services, under virtual time: starting, links, subscriptions that end.
#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

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
using service_apis::StartOptions;
using ::testing::ElementsAre;

TEST(StartTest, SettlingLeavesTheDeadToTheThreadsThatLookForThem) {
  for (int round = 0; round < 20; ++round) {
    TestDevice device(R"({"delegate": {"alive": false}})");
    ASSERT_TRUE(client().start({{Service::kPower}}));
    EXPECT_TRUE(device.settle());
    EXPECT_EQ(device.elapsed(), 0s);
    EXPECT_EQ(client().state(Service::kConnectivity).state, LinkState::kUp) << "all that are alive";
    EXPECT_EQ(client().state(Service::kDelegate).state, LinkState::kConnecting);
    device.restart("delegate");
    EXPECT_TRUE(device.settle());
    EXPECT_EQ(client().state(Service::kDelegate).state, LinkState::kUp);
    EXPECT_EQ(device.elapsed(), 2s);
  }
}

TEST(LinksTest, AreToldWhenAnInitialisationHasSettled) {
  for (int round = 0; round < 20; ++round) {
    TestDevice device;
    int up = 0;
    const auto links = client().subscribeLink([&](const Link& link) {
      if (link.state == LinkState::kUp && device.get("name") == "Kitchen Display") ++up;
    });
    ASSERT_TRUE(client().initialize());
    EXPECT_TRUE(device.settle());
    EXPECT_EQ(up, 8);
  }
}

}  // namespace
}  // namespace orvel::testing
