// The public queries, from the caller to the service and back.
#include <limits>
#include <stdexcept>

#include "orvel/OrvelDelegateClient.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using Client = service_apis::OrvelDelegateClient;

constexpr char kDelegate[] = "orvel_delegate";
constexpr char kPower[] = "com.quarlo.orvel.powermanager";

class DeviceQueries : public ClientTest {
 protected:
  DeviceQueries() : ClientTest("OrvelDelegateClient") {
    start_services();
    answer(kPower, Bytes().i32(0).i32(2));
    m_vesk.add_service(kDelegate, [](const Transaction& call) {
      if (call.code != 14) return Reply{Bytes().i32(0).utf16(std::to_string(call.code)), 0};
      return Reply{Bytes().i32(0).i32(1).utf16("1").utf16("2").utf16("3").utf16("type").null(), 0};
    });
  }
  ~DeviceQueries() override { m_client.shutdown(); }

  int setting(const std::string& value) {
    answer(kDelegate, Bytes().i32(0).utf16(value));
    return m_client.getSecureSettingInt("key", 7);
  }

  Client& m_client = Client::getClient();
};

TEST_F(DeviceQueries, EachAsksItsOwnTransaction) {
  ASSERT_TRUE(m_client.initialize());
  EXPECT_EQ(m_client.getDeviceName(), "33");
  EXPECT_EQ(m_client.getDeviceSerialNumber(), "42");
  EXPECT_EQ(m_client.getDeviceType(), "type");
  EXPECT_EQ(m_client.getCustomerDirectedID(), "32");
  EXPECT_EQ(m_client.getCountryOfResidence(), "18");
  EXPECT_EQ(m_client.getPreferredMarketPlace(), "17");
  EXPECT_EQ(m_client.getSecureSettingInt("key", 7), 15);
  EXPECT_TRUE(m_client.isDeviceRegistered());
  answer(kDelegate, Bytes().i32(0).utf16("<unknown>"));
  EXPECT_FALSE(m_client.isDeviceRegistered());
  EXPECT_TRUE(m_client.isScreenOn() && m_client.acquirePartialWakeLock() && m_client.acquireFullWakeLock());
  answer(kPower, Bytes().i32(0).i32(0));
  EXPECT_FALSE(m_client.isScreenOn() || m_client.acquirePartialWakeLock());
}

TEST_F(DeviceQueries, SettingsAreNumbersOrThrowAndLeaveTheClientUsable) {
  ASSERT_TRUE(m_client.initialize());
  const std::pair<const char*, int> numbers[] = {
      {"", 7}, {"42", 42}, {"  -3", -3}, {"12abc", 12}, {"010", 10}, {"-2147483648", std::numeric_limits<int>::min()}};
  for (const auto& [value, number] : numbers) EXPECT_EQ(setting(value), number) << value;
  for (const char* value : {"abc", " ", "-", "- 1"}) EXPECT_THROW(setting(value), std::invalid_argument) << value;
  EXPECT_THROW(setting("2147483648"), std::out_of_range);
  EXPECT_EQ(setting("1"), 1) << "the lock must not stay behind";

  const std::size_t sent = m_vesk.transactions().size();
  EXPECT_EQ(m_client.getSecureSettingInt("", 7), 7);
  EXPECT_EQ(m_vesk.transactions().size(), sent);
  m_client.getSecureSettingInt(std::string("key\0tail", 8), 7);
  EXPECT_EQ(m_vesk.transactions().back().request,
            request("com.quarlo.orveldelegate.IDelegateService", Bytes().utf16("key")));
}

TEST_F(DeviceQueries, AreRefusedWhileNotInitialized) {
  const struct {
    const char* method;
    bool (*fails)(Client&);
  } rows[] = {
      {"getDeviceName", [](auto& c) { return c.getDeviceName().empty(); }},
      {"getDeviceSerialNumber", [](auto& c) { return c.getDeviceSerialNumber().empty(); }},
      {"getDeviceType", [](auto& c) { return c.getDeviceType().empty(); }},
      {"getCustomerDirectedID", [](auto& c) { return !c.isDeviceRegistered(); }},
      {"getCountryOfResidence", [](auto& c) { return c.getCountryOfResidence().empty(); }},
      {"getPreferredMarketPlace", [](auto& c) { return c.getPreferredMarketPlace().empty(); }},
      {"getSecureSettingInt", [](auto& c) { return c.getSecureSettingInt("key", 7) == 7; }},
      {"isScreenOn", [](auto& c) { return !c.isScreenOn(); }},
      {"acquirePartialWakeLock", [](auto& c) { return !c.acquirePartialWakeLock(); }},
      {"acquireFullWakeLock", [](auto& c) { return !c.acquireFullWakeLock(); }},
  };
  for (const bool after_shutdown : {false, true}) {
    if (after_shutdown) {
      ASSERT_TRUE(m_client.initialize());
      m_client.shutdown();
    }
    m_log.take();
    for (const auto& row : rows) {
      EXPECT_TRUE(row.fails(m_client)) << row.method;
      EXPECT_EQ(m_log.take(), Lines{std::string("E ") + row.method + ":Client is not initialized"});
    }
    EXPECT_TRUE(m_client.isMaroConnected());
    EXPECT_FALSE(m_client.isNetworkConnected());
    EXPECT_EQ(m_log.take(), Lines{});
  }
}

}  // namespace
}  // namespace orvel::test
