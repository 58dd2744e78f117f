// What goes to the voice assistant and to the metrics, and what becomes of it when they die.
#include <algorithm>

#include "services/IOrvelSimDirectiveClient.h"
#include "services/IOrvelSimEventClient.h"
#include "services/ITarselMetric.h"
#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using namespace ::testing;     // NOLINT(google-build-using-namespace): its matchers

const std::string kEventService = kServices[kEvents], kCoordinator = kServices[kDirectives],
                  kMetricService = kServices[kMetrics];
const Reply kReplies[] = {{wire("0 1"), 0}, {wire("0 0"), 0},         {wire("0 2"), 0},   {wire("0 -1"), 0},
                          {wire("0"), 0},   {wire("-3 'no' 0 1"), 0}, {wire("0 1"), -EIO}};

class Assistant : public ClientTest {
 protected:
  Assistant() : ClientTest("IOrvelSimDirectiveClient") { start_services(); }

  void die_and_return(
      const std::string& service, const std::function<void()>& meanwhile = [] {}) {
    die(service, meanwhile);
    m_vesk.run_pending();
  }
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
  const std::string line = "E registerForDirective", invalid = ":Invalid parameter(s)";
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
  const int versions[] = {1, 0, 2, -1, 0, 0, 0};
  for (std::size_t n = 0; n < std::size(kReplies); ++n) {
    answer(kMetricService, kReplies[n].bytes, kReplies[n].result);
    EXPECT_TRUE(metrics.recordTarselMetricEvent({}));
    EXPECT_EQ(metrics.getVersion(), versions[n]);
  }
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
  EXPECT_THAT(m_vesk.transactions(), SizeIs(2 * std::size(kReplies)));
}

}  // namespace
}  // namespace orvel::test
