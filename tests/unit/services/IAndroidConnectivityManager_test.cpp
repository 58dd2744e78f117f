// The network callback.
#include "services/IAndroidConnectivityManager.h"

#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using service_apis::IAndroidConnectivityManager;
using ::testing::ElementsAre;

constexpr char kService[] = "com.quarlo.orvel.androidconnectivitymanager";
constexpr char kDescriptor[] = "com.quarlo.orveldelegate.androidconnectivitymanager.IAndroidConnectivityManager";

class IAndroidConnectivityManagerTest : public ClientTest {
 protected:
  IAndroidConnectivityManagerTest() : ClientTest("IAndroidConnectivityManager") { answer(kService, Bytes().i32(0)); }

  vesk_endpoint* sent(unsigned code) const {
    const Transaction call = m_vesk.transactions(kService).back();
    const Bytes head = request(kDescriptor);
    EXPECT_EQ(call.code, code);
    EXPECT_EQ(Bytes(call.request.data(), head.size()), head);
    return call.endpoints.at(0);
  }
  void notify(vesk_endpoint* endpoint, unsigned code) {
    m_vesk.send(endpoint, code, Bytes());
    m_vesk.run_pending();
  }
};

TEST_F(IAndroidConnectivityManagerTest, OnlyAvailableAndLostAreNews) {
  std::vector<bool> heard;
  IAndroidConnectivityManager manager(m_runtime);
  EXPECT_TRUE(manager.registerDefaultNetworkCallback([&](bool connected) { heard.push_back(connected); }));
  for (unsigned code = 0; code < 10; ++code) notify(sent(4), code);
  EXPECT_THAT(heard, ElementsAre(true, false));
  std::future<Reply> two_way = m_vesk.call(sent(4), 1, Bytes());
  m_vesk.run_pending();
  EXPECT_EQ(two_way.get().result, 1);
  EXPECT_EQ(heard.size(), 2U);
  EXPECT_EQ(m_log.take().back(), "D registerDefaultNetworkCallback:call registerDefaultNetworkCallback");
}

TEST_F(IAndroidConnectivityManagerTest, RegisteringAgainReplacesAndUnregisteringMayBeRepeated) {
  IAndroidConnectivityManager manager(m_runtime);
  EXPECT_TRUE(manager.unregisterNetworkCallback());
  EXPECT_THAT(m_log.take("WE"), ElementsAre("W unregisterNetworkCallback:Network callback not registered. No need to "
                                            "unregister"));
  EXPECT_EQ(m_vesk.transactions().size(), 0U);

  const auto held = std::make_shared<int>(0);
  manager.registerDefaultNetworkCallback([held](bool) {});
  vesk_endpoint* const first = sent(4);
  manager.registerDefaultNetworkCallback([](bool) {});
  vesk_endpoint* const second = sent(4);
  EXPECT_NE(second, first);
  EXPECT_EQ(held.use_count(), 2) << "the service may still call it";
  m_vesk.release_endpoint(first);
  EXPECT_EQ(held.use_count(), 1);
  for (int time = 0; time < 2; ++time) {
    EXPECT_TRUE(manager.unregisterNetworkCallback());
    EXPECT_EQ(sent(5), second);
  }
}

// Deliberate: a registration is not ended by done(), so the next call forgets its request and its reply, and no more.
TEST_F(IAndroidConnectivityManagerTest, ARegistrationLeavesExactlyItsPairBehind) {
  {
    IAndroidConnectivityManager manager(m_runtime);
    manager.registerDefaultNetworkCallback([](bool) {});
    EXPECT_EQ(messages(), 2);
    manager.unregisterNetworkCallback();
    EXPECT_EQ(messages(), 2);
    manager.registerDefaultNetworkCallback([](bool) {});
    EXPECT_EQ(messages(), 4);
  }
  EXPECT_EQ(messages(), 2);
}

TEST_F(IAndroidConnectivityManagerTest, ItsResultTellsTheBindingNotTheCall) {
  IAndroidConnectivityManager manager(m_runtime);
  answer(kService, Bytes().i32(-8).utf16("no").i32(0));
  EXPECT_TRUE(manager.registerDefaultNetworkCallback([](bool) {}));
  EXPECT_TRUE(manager.unregisterNetworkCallback());
  m_clock.at_sleep(1, [&] {
    m_log.take();
    EXPECT_FALSE(manager.registerDefaultNetworkCallback([](bool) {}) || manager.unregisterNetworkCallback());
    EXPECT_EQ(m_log.take(), Lines{});
    answer(kService, Bytes().i32(0));
  });
  m_vesk.kill_service(kService);
  m_vesk.run_pending();
  EXPECT_EQ(m_vesk.transactions().size(), 2U) << "not made again after a death, deliberately";
}

}  // namespace
}  // namespace orvel::test
