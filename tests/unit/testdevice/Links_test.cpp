// How the client stands with its services, under virtual time: starting, links, outcomes of events, subscriptions that
// end.
#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Fixture.h"
#include "orvel/CallStatus.h"
#include "orvel/Links.h"
#include "orvel/OrvelIntent.h"
#include "orvel/Service.h"
#include "orvel/testing/TestDevice.h"

namespace orvel::testing {
namespace {

using namespace std::chrono_literals;
using service_apis::EventOutcome;
using service_apis::lastCall;
using service_apis::Link;
using service_apis::LinkState;
using service_apis::Service;
using ::testing::ElementsAre;

TEST(StartTest, TakesAsLongAsWhatItRequiresAndLeavesTheRestToOtherThreads) {
  const struct {
    service_apis::StartOptions options;
    bool started;
    std::chrono::seconds after;
    const char* why;
  } rows[] = {
      {{{Service::kPower}, 30s}, true, 0s, "ok"},
      {{{Service::kDelegate}, 30s}, true, 6s, "ok"},
      {{{Service::kPower, Service::kDelegate}, 3s}, false, 3s, "the deadline has passed, and delegate is connecting"},
      {{{Service::kEvents}, 1h}, false, 322s, "events is given up"},
      {{{Service::kEvents}, 30s, /*wait=*/false}, true, 0s, "ok"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.why);
    TestDevice device(R"({"delegate": {"alive": false}, "events": {"alive": false}})");
    device.at(5s, [&] { device.restart("delegate"); });
    EXPECT_EQ(client().start(row.options), row.started);
    EXPECT_EQ(lastCall().text, row.why);
    EXPECT_EQ(device.elapsed(), row.after);
    EXPECT_TRUE(device.settle());
    EXPECT_TRUE(client().isScreenOn()) << "it has started";
    EXPECT_EQ(client().getDeviceName(), "Kitchen Display");
  }
}

TEST(StartTest, SettlingLeavesTheDeadToTheThreadsThatLookForThem) {
  TestDevice device(R"({"delegate": {"alive": false}})");
  ASSERT_TRUE(client().start({{Service::kPower}}));
  EXPECT_TRUE(device.settle());
  EXPECT_EQ(device.elapsed(), 0s);
  EXPECT_EQ(client().state(Service::kConnectivity).state, LinkState::kUp) << "all that are alive";
  device.at(9s, [&] { device.restart("delegate"); });
  EXPECT_FALSE(client().waitFor(Service::kDelegate, LinkState::kUp, 8s));
  EXPECT_EQ(lastCall().text, "the link is connecting");
  EXPECT_TRUE(client().waitFor(Service::kDelegate, LinkState::kUp, 8s));
  EXPECT_TRUE(client().waitFor(Service::kDelegate, LinkState::kUp, 0s)) << "at once";
  EXPECT_EQ(device.elapsed(), 10s);
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

std::string line_of(const Link& link, std::uint64_t epochs_before) {
  std::string line = nameOf(link.state);
  line += " " + std::to_string(link.epoch - epochs_before) + ", holds " + std::to_string(link.held);
  if (link.state == LinkState::kUp) {
    line += ", restored " + std::to_string(link.restored) + ", refused " + std::to_string(link.refused);
  }
  return line + (link.network_lost ? ", network lost" : "");
}

TEST(LinksTest, TellOneLifeOfTheClientAfterTheOther) {
  Texts told;
  Session s;
  const auto before = client().state(Service::kDelegate).epoch - 1;
  EXPECT_TRUE(s.hear_names());
  auto screen = client().subscribeScreenStateChange([](bool) {});
  const auto volume = client().subscribeSecureSettingIntChange("volume", 0, [](int) {});
  const auto links =
      client().subscribeLink(Service::kDelegate, [&](const Link& link) { told.push_back(line_of(link, before)); });
  s.kill("delegate");
  s.device.error("delegate", -71, "registerForSecureSettings");
  s.restart("delegate");
  s.repair("delegate");
  s.device.kill("delegate");
  s.device.advance(400s);
  EXPECT_EQ(client().getDeviceName(), "");
  EXPECT_EQ(lastCall().text, "the service is not bound (given up: the service was not found within 300 s)");
  screen.end();
  s.device.restart("delegate");
  EXPECT_TRUE(client().rebind(Service::kDelegate));
  EXPECT_TRUE(s.device.settle());
  s.expect_name_heard();
  client().shutdown();
  ASSERT_TRUE(client().initialize());
  EXPECT_TRUE(s.device.settle());
  EXPECT_THAT(told, ElementsAre("up 1, holds 4, restored 0, refused 0", "away 1, holds 4",
                                "up 2, holds 4, restored 3, refused 1", "away 2, holds 4", "given up 2, holds 4",
                                "away 2, holds 2", "up 3, holds 2, restored 2, refused 0", "stopped 3, holds 0",
                                "up 4, holds 0, restored 0, refused 0"));
}

TEST(LinksTest, AreUpBehindTheReplayAndInFrontOfTheFirstNotificationOfTheEpoch) {
  Session s;
  Texts order;
  EXPECT_TRUE(client().registerForDeviceNameChange([&](const std::string& name) { order.push_back(name); }));
  const auto links =
      client().subscribeLink(Service::kDelegate, [&](const Link& link) { order.emplace_back(nameOf(link.state)); });
  EXPECT_TRUE(client().registerForScreenStateChange([](bool) {}));
  s.device.delay("delegate", 100ms, kRegisterForNames);
  s.device.kill("delegate");
  s.device.at(6s + 150ms, [&] { s.device.set("name", "Early"); });  // registered already, and the replay goes on
  EXPECT_TRUE(client().registerForNetworkConnectivityChange([](bool) {}));
  s.restart("delegate");
  s.device.kill("connectivity");
  EXPECT_TRUE(s.device.settle());
  EXPECT_TRUE(client().state(Service::kConnectivity).network_lost) << "and nothing makes it again";
  EXPECT_THAT(order, ElementsAre("up", "away", "up", "Early"));
}

// ---- Outcomes of events ----

TEST(EventOutcomeTest, IsToldOnceWhateverHappens) {
  const struct {
    const char* outcome;
    std::chrono::seconds deadline;
    std::chrono::seconds result;  // when the service tells its own
    void (*happens)(TestDevice& device);
  } rows[] = {
      {"INVALID_EVENT", 0s, 5s, [](TestDevice&) {}},
      {"INVALID_EVENT", 9s, 5s, [](TestDevice&) {}},
      {"TIMEOUT", 3s, 5s, [](TestDevice&) {}},  // and the late one is dropped
      {"LOST", 0s, 5s, [](TestDevice& device) { device.kill("events"); }},
      {"LOST", 9s, 5s, [](TestDevice& device) { device.kill("events"); }},
      {"LOST", 3s, 5s, [](TestDevice&) { client().shutdown(); }},
  };
  for (const auto& row : rows) {
    Session s;
    Texts outcomes;
    s.device.eventResult("INVALID_EVENT", row.result);
    service_apis::AssistantEvent event;
    event.nspace = "Timers";
    event.name = "Rang";
    event.deadline = row.deadline;
    EXPECT_TRUE(client().send(event, [&](const EventOutcome& told) { outcomes.push_back(told.result); }));
    s.device.at(1s, [&] { row.happens(s.device); });
    EXPECT_TRUE(s.device.settle());
    s.device.advance(20s);
    client().shutdown();
    EXPECT_THAT(outcomes, ElementsAre(row.outcome)) << row.deadline.count();
  }
}

// ---- What could not be heard or read before, and what ends ----

TEST(SubscriptionTest, HearsWholeIntentsAndSettingsAsTheyAreUntilItEnds) {
  Session s;
  Texts heard;
  const auto held = std::make_shared<int>();
  const auto note = [&heard, held](std::string what) { heard.push_back(std::move(what)); };
  auto intents = client().subscribeBroadcast("ALARM", {}, {"clock"}, [note](const service_apis::OrvelIntent& intent) {
    note(intent.data + " " + intent.extras.get("hour", std::string()) + " " +
         std::to_string(intent.extras.get("minute", 0)));
  });
  auto volume = client().subscribeSecureSetting("volume", [note](const auto& value) { note(value.value_or("none")); });
  const auto tell = [&] {
    s.device.broadcast(R"({"action": "ALARM", "data": "clock:7", "extras": [{"key": "hour", "type": "string",
        "value": "seven"}, {"key": "minute", "type": "int", "value": 30}]})");
    s.device.set({"setting", "volume"}, "loud");
    EXPECT_EQ(client().getSecureSetting("volume"), "loud");
    s.device.unset({"setting", "volume"});
    EXPECT_EQ(client().getSecureSetting("volume"), std::nullopt);
    EXPECT_TRUE(lastCall()) << "unset is not a failure";
    EXPECT_TRUE(s.device.settle());
  };
  tell();
  EXPECT_THAT(heard, ElementsAre("clock:7 seven 30", "loud", "none"));
  s.kill("delegate");
  s.restart("delegate");
  EXPECT_EQ(s.registered().size(), 2U);
  EXPECT_GT(held.use_count(), 2);
  intents.end();
  volume = {};
  tell();
  EXPECT_EQ(heard.size(), 3U) << "what the device still sends is dropped";
  s.kill("delegate");
  s.restart("delegate");
  EXPECT_EQ(s.registered().size(), 0U) << "not made again";
  EXPECT_EQ(held.use_count(), 2) << "this and `note`";
}

}  // namespace
}  // namespace orvel::testing
