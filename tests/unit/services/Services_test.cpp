// What single calls of the services do besides what all methods do, and what goes to the voice assistant and to the
// metrics.
#include <algorithm>

#include "services/IActivityManager.h"
#include "services/IAndroidConnectivityManager.h"
#include "services/IDelegateService.h"
#include "services/IOrvelSimDirectiveClient.h"
#include "services/IOrvelSimEventClient.h"
#include "services/IPowerManagerService.h"
#include "services/ITarselMetric.h"
#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

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
    EXPECT_FALSE(service.registerForBroadcastWithDataTypeOrScheme(name, {}, {}, {}));
    EXPECT_THAT(m_log.take("WE"), ElementsAre("E getApplicationInfo:Package name is null or empty",
                                              "E getPackageInfo:Package name is null or empty",
                                              "E getRawResourceAsString:Package name is null or empty",
                                              "E checkSystemFeature:Feature name is null or empty",
                                              "E getSecureSetting:Setting key is null or empty",
                                              "E registerForSecureSettings:Setting key is null or empty",
                                              "E registerForBroadcastWithDataTypeOrScheme:Intent is null or empty"));
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

// Deliberate: a registration is not ended by done(), so the next call forgets its request and its reply, and no more.
TEST_F(Network, ACallbackHearsAvailableAndLostUntilItIsReplacedOrTheServiceDies) {
  auto owner = std::make_unique<IAndroidConnectivityManager>(m_runtime);
  EXPECT_TRUE(owner->unregisterNetworkCallback());
  EXPECT_THAT(m_log.take("WE"),
              ElementsAre("W unregisterNetworkCallback:Network callback not registered. No need to unregister"));
  EXPECT_THAT(m_vesk.transactions(), IsEmpty());

  hear(*owner);
  vesk_endpoint* const first = sent(4);
  for (unsigned code = 0; code < 10; ++code) m_vesk.send(first, code, Bytes());
  std::future<Reply> two_way = m_vesk.call(first, 1, Bytes());
  m_vesk.run_pending();
  EXPECT_EQ(two_way.get().result, 1);
  EXPECT_THAT(m_heard, ElementsAre("available", "lost"));

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
  die_and_return(kServices[kConnectivity], [&] {
    m_log.take();
    EXPECT_FALSE(owner->registerDefaultNetworkCallback({}) || owner->unregisterNetworkCallback());
    EXPECT_THAT(m_log.take(), IsEmpty());
  });
  EXPECT_THAT(m_vesk.transactions(), SizeIs(5)) << "deliberately not registered again";
  owner.reset();
  EXPECT_EQ(messages(), 4) << "the last pair ends with its owner";
}

const std::string kEventService = kServices[kEvents], kCoordinator = kServices[kDirectives],
                  kMetricService = kServices[kMetrics];
const Reply kReplies[] = {{wire("0 1"), 0}, {wire("0 0"), 0},         {wire("0 2"), 0},   {wire("0 -1"), 0},
                          {wire("0"), 0},   {wire("-3 'no' 0 1"), 0}, {wire("0 1"), -EIO}};

class Assistant : public ClientTest {
 protected:
  Assistant() : ClientTest("IOrvelSimDirectiveClient") { start_services(); }

  bool send(IOrvelSimEventClient& client, const std::string& payload = {}) {
    return client.sendEvent({}, payload,
                            [this, held = m_held](auto result) { m_heard.push_back(std::to_string(result)); });
  }
  bool hear(IOrvelSimDirectiveClient& client, const std::string& nspace) {
    return client.registerForDirective(nspace, [this](auto& heard) { m_heard.push_back(heard.directive1); });
  }
  // The namespaces that were published since the last bind, sorted.
  Lines published() const {
    Lines names;
    for (const std::string& each : m_vesk.bindings()) {
      each[0] == '=' ? names.push_back(each.substr(20, each.size() - 34)) : names.clear();
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::shared_ptr<int> m_held = std::make_shared<int>();  // by every callback of an event, and by this
  Lines m_heard;
};

TEST_F(Assistant, AnEventIsACallWithAnEndpointThatLivesWhileTheServiceHoldsItOrDies) {
  IOrvelSimEventClient client(m_runtime);
  for (const Reply& reply : kReplies) {
    const bool first = &reply == kReplies;
    answer(kEventService, reply.bytes, reply.result);
    EXPECT_EQ(send(client), first) << "1 alone is yes, not " << reply.bytes;
    const Transaction sent = m_vesk.transactions().back();
    EXPECT_EQ(m_held.use_count(), reply.result == 0 ? 2 : 1);
    m_vesk.release_endpoint(sent.endpoints.front());
    EXPECT_EQ(m_held.use_count() + messages(), 1);
    const Bytes head = request(kInterfaces[kEvents], wire("1 36 ~ ~ ~ ~ ~ ~ ~ 0 ~"));
    EXPECT_EQ(Bytes(sent.request.data(), head.size()), head) << "an empty payload is a null one";
  }
  serve(kEventService);
  for (int n = 0; n < 10; ++n) EXPECT_TRUE(send(client));
  m_vesk.send(m_vesk.transactions().back().endpoints.front(), 1, notification(wire("1 0")));
  m_vesk.run_pending();
  EXPECT_THAT(m_heard, ElementsAre("0"));
  EXPECT_EQ(m_held.use_count(), 11);
  die_and_return(kEventService, [&] { EXPECT_FALSE(send(client)); });
  EXPECT_EQ(m_held.use_count(), 1);
  EXPECT_THAT(m_vesk.transactions(), SizeIs(std::size(kReplies) + 10)) << "nothing is sent again";
}

TEST_F(Assistant, ANamespaceThatIsRefusedMayBeTriedAgainAndOneThatIsThereKeepsItsCallback) {
  IOrvelSimDirectiveClient client(m_runtime);
  m_log.take();
  EXPECT_FALSE(hear(client, "") || hear(client, {"A\0B", 3}) || client.registerForDirective("A", {}));
  EXPECT_FALSE(client.registerForDirectiveInternal("", [](auto&) {}) || client.registerForDirectiveInternal("A", {}));
  m_vesk.fail_once("vesk_service_register", 1, -17);
  EXPECT_FALSE(hear(client, "A"));
  EXPECT_TRUE(hear(client, "A") && hear(client, "A"));
  const std::string line = "E registerForDirective";
  const std::string invalid = ":Invalid parameter(s)";
  EXPECT_THAT(m_log.take(), ElementsAre(line + invalid, line + invalid, line + invalid, line + "Internal" + invalid,
                                        line + "Internal" + invalid,
                                        line + "Internal:vesk service register failed. nspace=A, err=-17",
                                        line + ":namespace is already registered. nspace=A"));
  EXPECT_THAT(m_vesk.bindings(), ElementsAre("+" + kCoordinator, "=sim_broker_service_A_vesk_endpoint"));
  for (const Bytes& message : {wire("'a'"), Bytes()}) m_vesk.send("sim_broker_service_A_vesk_endpoint", 99, message);
  m_vesk.run_pending();
  EXPECT_THAT(m_heard, ElementsAre("a", ""));
  EXPECT_EQ(m_vesk.uses("vesk_service_bind"), 0) << "the coordinator is an Android service";
}

TEST_F(Assistant, EachDeathPublishesEveryNamespaceOnce) {
  {
    IOrvelSimDirectiveClient client(m_runtime);
    m_vesk.fail_once("vesk_service_register");
    EXPECT_TRUE(!hear(client, "refused") && hear(client, "A") && hear(client, "B"));
    // It replaces an endpoint whose end is a death: between its publication and its place in the list.
    std::shared_ptr<void> at_end(nullptr, [this](void*) { die_and_return(kCoordinator); });
    client.registerForDirectiveInternal("Late", [held = std::move(at_end)](auto&) {});
    EXPECT_TRUE(hear(client, "Late"));
    EXPECT_THAT(published(), ElementsAre("A", "B", "Late"));
    die_and_return(kCoordinator, [&] {
      EXPECT_TRUE(hear(client, "Away"));
      m_vesk.fail_once("vesk_service_register", 2);
    });
    EXPECT_THAT(published(), ElementsAre("A", "Away", "Late"));
    EXPECT_THAT(m_log.take(),
                Contains("I onOscReconnectedCallback:OSC reconnected, re-registering directive callbacks"));
    die_and_return(kCoordinator);
    EXPECT_THAT(published(), ElementsAre("A", "Away", "B", "Late")) << "one that failed is not given up";
    EXPECT_EQ(m_vesk.live().endpoint_references, 4) << "those that were replaced are gone";
    vesk_shutdown(m_runtime);
  }
  EXPECT_EQ(m_vesk.live(), Live{});
}

TEST_F(Assistant, AMetricEventThatWasWrittenCountsAsRecordedAndNoOtherIsSent) {
  ITarselMetric metrics(m_runtime);
  for (const Reply& reply : kReplies) {
    answer(kMetricService, reply.bytes, reply.result);
    EXPECT_TRUE(metrics.recordTarselMetricEvent({}));
  }
  EXPECT_EQ(metrics.getVersion(), 0);
  answer(kMetricService, wire("0 -1"));
  EXPECT_EQ(metrics.getVersion(), -1);
  EXPECT_EQ(m_vesk.transactions().back().code, 3U);
  EXPECT_EQ(m_vesk.transactions().back().request, request(kInterfaces[kMetrics]));
  TarselMetricEvent unset;
  unset.fields["k"] = nullptr;
  m_log.take();
  EXPECT_FALSE(metrics.recordTarselMetricEvent(unset));
  EXPECT_THAT(m_log.take(), ElementsAre(HasSubstr("IDelegateService call:Serialize payload failed with error ")));
  die_and_return(kMetricService, [&] {
    m_log.take();
    EXPECT_FALSE(metrics.recordTarselMetricEvent({}) || metrics.getVersion() != 0);
    EXPECT_THAT(m_log.take(), IsEmpty()) << "an unbound service is not news";
  });
  EXPECT_THAT(m_vesk.transactions(), SizeIs(std::size(kReplies) + 2));
}

}  // namespace
}  // namespace orvel::test
