// What single calls of the services do besides what all methods do.
#include "services/IActivityManager.h"
#include "services/IAndroidConnectivityManager.h"
#include "services/IDelegateService.h"
#include "services/IPowerManagerService.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Queries : public ClientTest {
 protected:
  Queries() : ClientTest("IDelegateService") { start_services(); }
};

TEST_F(Queries, OnlyTheExactUnknownIdentifierIsNone) {
  IDelegateService service(m_runtime);
  for (const std::string id : {"<unknown>", "", "<Unknown>", "<unknown> "}) {
    const bool none = id == "<unknown>" || id.empty();
    answer(kServices[kDelegate], Bytes().i32(0).utf16(id));
    EXPECT_EQ(service.getDirectedId(), none ? "" : id);
    EXPECT_EQ(m_log.take("W").size(), none ? 1U : 0U);
  }
}

TEST_F(Queries, MissingArgumentsAreNotSent) {
  IDelegateService service(m_runtime);
  m_vesk.refuse_binds(kServices[kDelegate], 1000);
  IDelegateService unbound(m_runtime);
  OrvelResolveInfoArray::Records receivers(1);
  m_log.take();
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(service.getApplicationInfo(name, 0) || service.getPackageInfo(name, 0));
    EXPECT_EQ(service.getRawResourceAsString(name, 0), "");
    EXPECT_FALSE(service.checkSystemFeature(name));
    EXPECT_EQ(service.getSecureSetting(name), "");
    EXPECT_FALSE(service.registerForSecureSettings(name, {}));
    EXPECT_EQ(service.registerForSecureSettingsInternal(name, {}), kNoConnection);
    EXPECT_FALSE(service.registerForBroadcastWithDataTypeOrScheme(name, {}, {}, {}));
    EXPECT_EQ(service.registerForBroadcastWithDataTypeOrSchemeInternal(name, {}, {}, {}), kNoConnection);
    EXPECT_THAT(m_log.take("WE"),
                ElementsAre("E getApplicationInfo:Package name is null or empty",
                            "E getPackageInfo:Package name is null or empty",
                            "E getRawResourceAsString:Package name is null or empty",
                            "E checkSystemFeature:Feature name is null or empty",
                            "E getSecureSetting:Setting key is null or empty",
                            "E registerForSecureSettings:Setting key is null or empty",
                            "E registerForSecureSettingsInternal:Setting key is null or empty",
                            "E registerForBroadcastWithDataTypeOrScheme:Intent is null or empty",
                            "E registerForBroadcastWithDataTypeOrSchemeInternal:Intent is null or empty"));
  }
  // An unbound service is not news.
  for (IDelegateService* each : {&service, &unbound}) {
    EXPECT_FALSE(each->queryBroadcastReceivers("", 0, receivers) || each->getLaunchIntentForPackage(""));
  }
  EXPECT_EQ(service.getInstalledPackages(5), Lines());
  EXPECT_THAT(m_log.take(), ElementsAre("E queryBroadcastReceivers:Intent is empty",
                                        "E getLaunchIntentForPackage:Package name is empty",
                                        "E getInstalledPackages:Not implemented - get installed packages. flags=[5]"));
  EXPECT_EQ(receivers.size(), 1U) << "what was there stays";
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());
}

TEST_F(Queries, RecordsAreAppendedOrReplacedAndNoneOutlivesADamagedReply) {
  IDelegateService service(m_runtime);
  IActivityManager activities(m_runtime);
  OrvelResolveInfoArray::Records receivers(1);
  RunningAppProcessInfoArray::Records processes(1);
  for (const bool whole : {true, false}) {
    for (const char* name : kServices) answer(name, wire(whole ? "0 1 1 1 1 1" : "0 2 1 1 1 1"));
    EXPECT_EQ(service.queryBroadcastReceivers("a", 0, receivers), whole);
    EXPECT_EQ(receivers.size(), whole ? 2U : 0U);
    EXPECT_EQ(activities.getRunningAppProcessesInfo(processes), whole);
    EXPECT_EQ(processes.size(), whole ? 1U : 0U);
  }
}

TEST_F(Queries, APartialWakeLockNeedsInterfaceVersionTwo) {
  IPowerManagerService power(m_runtime);
  answer(kServices[kPower], wire("0 1"));
  EXPECT_FALSE(power.acquirePartialWakeLock());
  EXPECT_THAT(m_log.take("E"), ElementsAre("E OrvelDelegateClient:IPowerManagerService acquirePartialWakeLock:"
                                           "wakeUpDeviceCustom() is not available in interface version 1"));
  answer(kServices[kPower], wire("0 256"));
  EXPECT_TRUE(power.acquirePartialWakeLock());
  m_vesk.kill_service(kServices[kPower]);
  EXPECT_FALSE(power.wakeUpDeviceCustom(1, 1));
}

class Network : public ClientTest {
 protected:
  Network() : ClientTest("IAndroidConnectivityManager") { start_services(); }

  void hear(IAndroidConnectivityManager& manager) {
    EXPECT_TRUE(manager.registerDefaultNetworkCallback(
        [this, held = m_held](bool connected) { m_heard.emplace_back(connected ? "available" : "lost"); }));
  }
  // Of the last call, whose code that is.
  vesk_endpoint* sent(unsigned code) const {
    const Transaction call = m_vesk.transactions(kServices[kConnectivity]).back();
    EXPECT_EQ(call.code, code);
    return call.endpoints.at(0);
  }

  std::shared_ptr<int> m_held = std::make_shared<int>();  // by every callback, and by this
  Lines m_heard;
};

TEST_F(Network, OnlyAvailableAndLostAreNewsAndADeathEndsThem) {
  IAndroidConnectivityManager manager(m_runtime);
  hear(manager);
  for (unsigned code = 0; code < 10; ++code) m_vesk.send(sent(4), code, Bytes());
  std::future<Reply> two_way = m_vesk.call(sent(4), 1, Bytes());
  m_vesk.run_pending();
  EXPECT_EQ(two_way.get().result, 1);
  EXPECT_THAT(m_heard, ElementsAre("available", "lost"));
  die(kServices[kConnectivity], [&] {
    m_log.take();
    EXPECT_FALSE(manager.registerDefaultNetworkCallback({}) || manager.unregisterNetworkCallback());
    EXPECT_THAT(m_log.take(), IsEmpty());
  });
  m_vesk.run_pending();
  EXPECT_EQ(m_vesk.transactions().size(), 1U) << "deliberately not registered again";
}

// Deliberate: a registration is not ended by done(), so the next call forgets its request and its reply, and no more.
TEST_F(Network, RegisteringAgainReplacesAndUnregisteringMayBeRepeated) {
  auto owner = std::make_unique<IAndroidConnectivityManager>(m_runtime);
  EXPECT_TRUE(owner->unregisterNetworkCallback());
  EXPECT_THAT(m_log.take("WE"),
              ElementsAre("W unregisterNetworkCallback:Network callback not registered. No need to unregister"));
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());

  hear(*owner);
  vesk_endpoint* const first = sent(4);
  hear(*owner);
  vesk_endpoint* const second = sent(4);
  EXPECT_NE(second, first);
  EXPECT_EQ(m_held.use_count(), 3) << "the service may still call the first";
  m_vesk.release_endpoint(first);
  EXPECT_EQ(m_held.use_count(), 2);
  for (int time = 0; time < 2; ++time) {
    EXPECT_TRUE(owner->unregisterNetworkCallback());
    EXPECT_EQ(sent(5), second);
    EXPECT_EQ(messages(), 4);
  }
  hear(*owner);
  owner.reset();
  EXPECT_EQ(messages(), 4) << "the last pair ends with its owner";
}

}  // namespace
}  // namespace orvel::test
