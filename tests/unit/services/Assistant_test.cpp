// What goes to the voice assistant and to the metrics, and what becomes of it when they die.
#include <set>

#include "services/IOrvelSimDirectiveClient.h"
#include "services/IOrvelSimEventClient.h"
#include "services/ITarselMetric.h"
#include "support/ClientTest.h"
#include "support/FakeDelegate.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using namespace ::testing;     // NOLINT(google-build-using-namespace): its matchers

const std::string kEvents = kServices[2], kCoordinator = kServices[3], kMetrics = kServices[5];
const Reply kReplies[] = {{wire("0 1"), 0}, {wire("0 0"), 0},         {wire("0 2"), 0},   {wire("0 -1"), 0},
                          {wire("0"), 0},   {wire("-3 'no' 0 1"), 0}, {wire("0 1"), -EIO}};

class Assistant : public ClientTest {
 protected:
  Assistant() : ClientTest("IOrvelSimDirectiveClient") { start_services(); }

  // The service dies and is there again when the pause, in which `meanwhile` runs, is over.
  void die(const std::string& service, const std::function<void()>& meanwhile) {
    m_clock.at_sleep(1, [=] { meanwhile(), start_services(); });
    m_vesk.kill_service(service);
    m_vesk.run_pending();
  }
  bool send(IOrvelSimEventClient& client, const std::string& payload = {}) {
    return client.sendEvent({}, payload,
                            [this, held = m_held](auto result) { m_heard.push_back(std::to_string(result)); });
  }
  bool hear(IOrvelSimDirectiveClient& client, const std::string& nspace) {
    return client.registerForDirective(nspace, [this](auto& heard) { m_heard.push_back(heard.directive1); });
  }
  // The namespaces that were published since the last bind.
  std::multiset<std::string> published() const {
    std::multiset<std::string> names;
    for (const std::string& each : m_vesk.bindings()) {
      each[0] == '=' ? void(names.insert(each.substr(20, each.size() - 34))) : names.clear();
    }
    return names;
  }

  std::shared_ptr<int> m_held = std::make_shared<int>();  // by every callback of an event, and by this
  Lines m_heard;
};

TEST_F(Assistant, AnEventIsACallWithAnEndpointThatLivesWhileTheServiceHoldsItOrDies) {
  IOrvelSimEventClient client(m_runtime);
  for (const Reply& reply : kReplies) {
    const bool first = &reply == kReplies;
    m_vesk.add_service(kEvents, [&](const Transaction&) { return reply; });
    EXPECT_EQ(send(client, first ? "" : "p"), first) << "1 alone is yes, not " << reply.bytes;
    const Transaction sent = m_vesk.transactions().back();
    const Bytes head = request("com.quarlo.orveldelegate.orvelsim.IOrvelSimEventClient",
                               wire(first ? "1 36 ~ ~ ~ ~ ~ ~ ~ 0 ~" : "1 36 ~ ~ ~ ~ ~ ~ ~ 0 'p'"));
    ASSERT_EQ(sent.request.size(), head.size() + 8) << "the endpoint is last";
    EXPECT_EQ(Bytes(sent.request.data(), head.size()), head);
    EXPECT_EQ(sent.code, 2U);
    EXPECT_EQ(m_held.use_count(), reply.result == 0 ? 2 : 1);
    m_vesk.release_endpoint(sent.endpoints.front());
    EXPECT_EQ(m_held.use_count() + messages(), 1);
  }
  answer(kEvents, wire("0 1"));
  for (int n = 0; n < 1000; ++n) EXPECT_TRUE(send(client));
  EXPECT_EQ(m_held.use_count(), 1001);
  const std::size_t sent = m_vesk.transactions().size();
  die(kEvents, [&] {
    m_log.take();
    EXPECT_FALSE(send(client));
    EXPECT_THAT(m_log.take(), ElementsAre(EndsWith("IOrvelSimEventClient sendEvent:m_binder.good() = false")));
  });
  EXPECT_EQ(m_held.use_count(), 1);
  EXPECT_THAT(m_vesk.transactions(), SizeIs(sent)) << "nothing is sent again";
  send(client);
  m_vesk.send(m_vesk.transactions().back().endpoints.front(), 1, notification(wire("1 0")));
  m_vesk.run_pending();
  EXPECT_THAT(m_heard, ElementsAre("0"));
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

TEST_F(Assistant, EachDeathPublishesEveryNamespaceOnceWhateverItOverlapsWith) {
  {
    IOrvelSimDirectiveClient client(m_runtime);
    m_vesk.fail_once("vesk_service_register");
    EXPECT_TRUE(!hear(client, "refused") && hear(client, "A") && hear(client, "B"));
    // It replaces an endpoint whose end is a death: between its publication and its place in the list.
    std::shared_ptr<void> at_end(nullptr, [this](void*) { die(kCoordinator, [] {}); });
    client.registerForDirectiveInternal("Late", [held = std::move(at_end)](auto&) {});
    EXPECT_TRUE(hear(client, "Late"));
    EXPECT_THAT(published(), ElementsAre("A", "B", "Late"));
    die(kCoordinator, [&] {
      EXPECT_TRUE(hear(client, "Away"));
      m_vesk.fail_once("vesk_service_register", 2);
    });
    EXPECT_THAT(published(), ElementsAre("A", "Away", "Late"));
    EXPECT_THAT(m_log.take(),
                Contains("I onOscReconnectedCallback:OSC reconnected, re-registering directive callbacks"));
    for (int n = 0; n < 10'000; ++n) EXPECT_TRUE(hear(client, std::to_string(n)));
    die(kCoordinator, [] {});
    const std::multiset<std::string> names = published();
    EXPECT_EQ(names.count("B"), 1U) << "one that failed is not given up";
    EXPECT_THAT(std::set<std::string>(names.begin(), names.end()), SizeIs(names.size()));
    EXPECT_EQ(m_vesk.live().endpoint_references, 10'004) << "those that were replaced are gone";
    vesk_shutdown(m_runtime);
  }
  EXPECT_EQ(m_vesk.live(), Live{});
}

TEST_F(Assistant, AMetricEventThatWasWrittenCountsAsRecordedAndNoOtherIsSent) {
  ITarselMetric metrics(m_runtime);
  constexpr char kDescriptor[] = "com.quarlo.orveldelegate.services.ITarselMetric";
  const int versions[] = {1, 0, 2, -1, 0, 0, 0};
  for (std::size_t n = 0; n < std::size(kReplies); ++n) {
    m_vesk.add_service(kMetrics, [n](const Transaction&) { return kReplies[n]; });
    EXPECT_TRUE(metrics.recordTarselMetricEvent({}));
    EXPECT_EQ(metrics.getVersion(), versions[n]);
    EXPECT_EQ(messages(), 0);
  }
  const std::vector<Transaction> calls = m_vesk.transactions();
  EXPECT_EQ(calls[0].code * 10 + calls[1].code, 23U);
  EXPECT_EQ(calls[0].request, request(kDescriptor, wire("1 24 '' '' -1")));
  EXPECT_EQ(calls[1].request, request(kDescriptor));
  TarselMetricEvent unset;
  unset.fields["k"] = nullptr;
  m_log.take();
  EXPECT_FALSE(metrics.recordTarselMetricEvent(unset));
  EXPECT_THAT(m_log.take(), ElementsAre(HasSubstr("IDelegateService call:Serialize payload failed with error ")));
  die(kMetrics, [&] {
    m_log.take();
    EXPECT_FALSE(metrics.recordTarselMetricEvent({}) || metrics.getVersion() != 0);
    EXPECT_THAT(m_log.take(), IsEmpty()) << "an unbound service is no news";
  });
  EXPECT_THAT(m_vesk.transactions(), SizeIs(calls.size()));
}

}  // namespace
}  // namespace orvel::test
