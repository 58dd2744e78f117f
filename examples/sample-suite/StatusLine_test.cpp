// What a client's own tests look like: the client library's code runs, against a device in this process.
#include "StatusLine.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <string>

#include "orvel/testing/TestDevice.h"

namespace {

using namespace std::chrono_literals;

class StatusLineTest : public ::testing::Test {
 protected:
  orvel::testing::TestDevice m_device{R"({"delegate": {"name": "Kitchen", "settings": {"volume_alarm": "5"}}})"};
  StatusLine m_line;
};

TEST_F(StatusLineTest, ShowsTheDeviceAsItIs) {
  ASSERT_TRUE(m_line.start());
  EXPECT_EQ(m_line.text(), "Kitchen, screen on, alarm at 5");
}

TEST_F(StatusLineTest, FollowsWhatChanges) {
  ASSERT_TRUE(m_line.start());
  m_device.set("name", "Living room");
  m_device.screen(false);
  m_device.set({"setting", "volume_alarm"}, "7");
  m_device.settle();
  EXPECT_EQ(m_line.text(), "Living room, screen off, alarm at 7");
}

TEST_F(StatusLineTest, SubscribesOnceAgainWhenTheServiceIsBack) {
  ASSERT_TRUE(m_line.start());
  const auto before = m_device.registrations().size();
  m_device.kill("delegate");
  m_device.set("name", "Living room");  // while the service is dead, the program is not told
  m_device.restart("delegate");
  m_device.settle();
  EXPECT_GE(m_device.elapsed(), 6s) << "the client lets a service come to itself";
  EXPECT_EQ(m_device.registrations().size(), before);
  EXPECT_EQ(m_device.broadcast("android.intent.action.SCREEN_OFF"), 1);
  m_device.set("name", "Hall");
  m_device.settle();
  EXPECT_EQ(m_line.text(), "Hall, screen off, alarm at 5");
}

TEST_F(StatusLineTest, StartsWhenAServiceHangs) {
  m_device.hang("power", "isInteractive");
  ASSERT_TRUE(m_line.start());
  EXPECT_EQ(m_device.elapsed(), 30s) << "the limit of a call, of which no test sees anything";
  EXPECT_EQ(m_line.text(), "Kitchen, screen off, alarm at 5");
}

// What one service gets wrong, and what the line then says.
struct Fault {
  const char* name;
  void (*strike)(orvel::testing::TestDevice& device);
};
void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

class StatusLineFaultTest : public StatusLineTest, public ::testing::WithParamInterface<Fault> {};

TEST_P(StatusLineFaultTest, SaysThatItDoesNotKnowTheName) {
  GetParam().strike(m_device);
  ASSERT_TRUE(m_line.start());
  EXPECT_EQ(m_line.text(), "unknown device, screen on, alarm at 5");
}

INSTANTIATE_TEST_SUITE_P(
    GetDeviceName, StatusLineFaultTest,
    ::testing::Values(Fault{"Exception", [](auto& device) { device.exception("delegate", "getDeviceName"); }},
                      Fault{"Error", [](auto& device) { device.error("delegate", -5, "getDeviceName"); }},
                      Fault{"TruncatedReply", [](auto& device) { device.truncate("delegate", 6, "getDeviceName"); }}),
    [](const auto& fault) { return std::string(fault.param.name); });

TEST_F(StatusLineTest, IsInNoHurry) {
  m_device.delay("delegate", 20s);
  ASSERT_TRUE(m_line.start());
  EXPECT_EQ(m_line.text(), "Kitchen, screen on, alarm at 5");
}

TEST_F(StatusLineTest, SaysWhatTheAssistantSaysAndTellsIt) {
  ASSERT_TRUE(m_line.start());
  m_device.directive("StatusLine", {"Dinner is ready"});
  m_device.settle();
  EXPECT_EQ(m_line.said(), "Dinner is ready");

  m_device.eventResult("TIMEOUT", 5min);
  EXPECT_TRUE(m_line.acknowledge());
  EXPECT_EQ(m_line.acknowledged(), "");
  m_device.settle();
  EXPECT_EQ(m_line.acknowledged(), "TIMEOUT");
  const auto events = m_device.calls("events", "sendEvent");
  ASSERT_EQ(events.size(), 1U);
  EXPECT_NE(events[0].arguments.find("Dinner is ready"), std::string::npos) << events[0].arguments;
}

}  // namespace
