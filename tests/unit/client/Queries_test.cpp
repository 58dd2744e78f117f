// What single queries do besides what all methods do: conversions, answers of other kinds, arguments that are missing.
#include <limits>
#include <stdexcept>
#include <utility>

#include "orvel/TarselMetricEvent.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Queries : public ClientTest {
 protected:
  Queries() : ClientTest("OrvelDelegateClient") {
    start_services();
    EXPECT_TRUE(m_client.initialize());
    m_log.take();
  }
  ~Queries() override { m_client.shutdown(); }

  int setting(const std::string& value) {
    answer(kServices[kDelegate], Bytes().i32(0).utf16(value));
    return m_client.getSecureSettingInt("key", 7);
  }

  Client& m_client = Client::getClient();
};

TEST_F(Queries, SettingsAreNumbersOrThrowAndLeaveTheClientUsable) {
  const std::pair<const char*, int> numbers[] = {
      {"", 7}, {"42", 42}, {"  -3", -3}, {"12abc", 12}, {"010", 10}, {"-2147483648", std::numeric_limits<int>::min()}};
  for (const auto& [value, number] : numbers) EXPECT_EQ(setting(value), number) << value;
  for (const char* value : {"abc", " ", "-", "- 1"}) EXPECT_THROW(setting(value), std::invalid_argument) << value;
  EXPECT_THROW(setting("2147483648"), std::out_of_range);
  EXPECT_EQ(setting("1"), 1) << "the lock must not stay behind";
  m_client.getSecureSettingInt(std::string("key\0tail", 8), 7);
  EXPECT_EQ(m_vesk.transactions().back().request, request(kInterfaces[kDelegate], wire("'key'")));
}

TEST_F(Queries, AnAnswerOfNoIsNoFailure) {
  for (const char* service : {kServices[kDelegate], kServices[kPower]}) answer(service, wire("0 0"));
  EXPECT_FALSE(m_client.isScreenOn() || m_client.acquirePartialWakeLock() || m_client.hasSystemFeature("f"));
  answer(kServices[kDelegate], Bytes().i32(0).utf16("<unknown>"));
  EXPECT_FALSE(m_client.isDeviceRegistered());
}

TEST_F(Queries, OfAnApplicationTheEntryThatHasKeyAndTypeCounts) {
  EXPECT_EQ(m_client.getApplicationInfoMetaData("p", 0, "l", "-"), "-");
  EXPECT_EQ(m_client.getApplicationInfoMetaData("p", 0, "k", "-"), "v");
}

TEST_F(Queries, OfTheProcessesWithAPackageTheFirstCounts) {
  const auto state = [this](const char* package) {
    bool found = false, focused = false;
    int importance = 55;
    EXPECT_TRUE(m_client.getAppProcessState(package, found, importance, focused));
    return std::tuple(found, importance, focused);
  };
  EXPECT_EQ(state("x"), std::tuple(true, 125, true));
  EXPECT_EQ(state(""), std::tuple(true, 100, true));
  EXPECT_EQ(state("y"), std::tuple(false, -1, false));
}

TEST_F(Queries, NullIsRefusedBeforeTheClientIsAsked) {
  EXPECT_FALSE(m_client.broadcastIntent(nullptr) || m_client.broadcastIntentWithPermission(nullptr, "r") ||
               m_client.startActivity(nullptr) || m_client.startForegroundService(nullptr) ||
               m_client.startService(nullptr));
  m_client.recordTarselMetricEvent(nullptr);
  EXPECT_EQ(m_client.getSecureSettingInt("", 7), 7);
  EXPECT_THAT(m_log.take("WE"),
              ElementsAre("E broadcastIntent:intent is null", "E broadcastIntentWithPermission:intent is null",
                          "E startActivity:intent is null", "E startForegroundService:intent is null",
                          "E startService:intent is null", "E recordTarselMetricEvent:event is null",
                          "E OrvelDelegateClient:IDelegateService getSecureSetting:Setting key is null or empty"));
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());
}

}  // namespace
}  // namespace orvel::test
