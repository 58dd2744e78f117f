// The wake locks, and the network callback.
#include "services/IAndroidConnectivityManager.h"
#include "services/IPowerManagerService.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using service_apis::IAndroidConnectivityManager;
using service_apis::IPowerManagerService;
using ::testing::ElementsAre;

const std::string kService = kServices[kConnectivity];

class PowerAndNetwork : public ClientTest {
 protected:
  PowerAndNetwork() : ClientTest("IAndroidConnectivityManager") { start_services(); }

  // Of the last call, whose code that is.
  vesk_endpoint* sent(unsigned code) const {
    const Transaction call = m_vesk.transactions(kService).back();
    EXPECT_EQ(call.code, code);
    return call.endpoints.at(0);
  }
};

TEST_F(PowerAndNetwork, APartialWakeLockNeedsInterfaceVersionTwo) {
  IPowerManagerService power(m_runtime);
  m_log.take();
  answer(kServices[kPower], wire("0 1"));
  EXPECT_FALSE(power.acquirePartialWakeLock());
  EXPECT_THAT(m_log.take("E"), ElementsAre("E OrvelDelegateClient:IPowerManagerService acquirePartialWakeLock:"
                                           "wakeUpDeviceCustom() is not available in interface version 1"));
  answer(kServices[kPower], wire("0 256"));
  EXPECT_TRUE(power.acquirePartialWakeLock());
  EXPECT_EQ(m_vesk.transactions().size(), 3U);
  m_vesk.kill_service(kServices[kPower]);
  EXPECT_FALSE(power.wakeUpDeviceCustom(1, 1));
}

TEST_F(PowerAndNetwork, OnlyAvailableAndLostAreNews) {
  std::vector<bool> heard;
  IAndroidConnectivityManager manager(m_runtime);
  EXPECT_TRUE(manager.registerDefaultNetworkCallback([&](bool connected) { heard.push_back(connected); }));
  for (unsigned code = 0; code < 10; ++code) m_vesk.send(sent(4), code, Bytes());
  std::future<Reply> two_way = m_vesk.call(sent(4), 1, Bytes());
  m_vesk.run_pending();
  EXPECT_EQ(two_way.get().result, 1);
  EXPECT_THAT(heard, ElementsAre(true, false));
}

TEST_F(PowerAndNetwork, RegisteringAgainReplacesAndUnregisteringMayBeRepeated) {
  IAndroidConnectivityManager manager(m_runtime);
  EXPECT_TRUE(manager.unregisterNetworkCallback());
  EXPECT_THAT(m_log.take("WE"),
              ElementsAre("W unregisterNetworkCallback:Network callback not registered. No need to unregister"));
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
TEST_F(PowerAndNetwork, ARegistrationLeavesExactlyItsPairBehind) {
  {
    IAndroidConnectivityManager manager(m_runtime);
    for (const int left : {2, 4}) {
      manager.registerDefaultNetworkCallback([](bool) {});
      EXPECT_EQ(messages(), left);
      manager.unregisterNetworkCallback();
      EXPECT_EQ(messages(), left);
    }
    manager.registerDefaultNetworkCallback([](bool) {});
  }
  EXPECT_EQ(messages(), 4) << "the last pair ends with its owner";
}

TEST_F(PowerAndNetwork, ANetworkCallbackIsNotRegisteredAgainAfterADeath) {
  IAndroidConnectivityManager manager(m_runtime);
  manager.registerDefaultNetworkCallback([](bool) {});
  die(kService, [&] {
    m_log.take();
    EXPECT_FALSE(manager.registerDefaultNetworkCallback([](bool) {}) || manager.unregisterNetworkCallback());
    EXPECT_EQ(m_log.take(), Lines{});
  });
  m_vesk.run_pending();
  EXPECT_EQ(m_vesk.transactions().size(), 1U) << "deliberately";
}

}  // namespace
}  // namespace orvel::test
