// The assistant's events and directives, and metrics, from the caller to the services and back.
#include "orvel/OrvelDelegateClient.h"
#include "orvel/TarselMetricEvent.h"
#include "support/ClientTest.h"
#include "support/FakeDelegate.h"

namespace orvel::test {
namespace {

using namespace ::testing;  // NOLINT(google-build-using-namespace): its matchers
using Client = service_apis::OrvelDelegateClient;

class AssistantAndMetrics : public ClientTest {
 protected:
  AssistantAndMetrics() : ClientTest("OrvelDelegateClient") { start_services(); }
  ~AssistantAndMetrics() override { m_client.shutdown(); }

  bool send(const Client::EventResultCallback& callback) {
    return m_client.sendEvent("1", "2", "3", "4", "5", "6", "7", true, "8", callback);
  }
  bool hear(const char* nspace) {
    return m_client.registerForDirective(nspace, [this](auto& a, auto& b, auto& c, auto& d, auto& e, auto& f, auto& g) {
      m_heard.push_back(a + ',' + b + ',' + c + ',' + d + ',' + e + ',' + f + ',' + g);
    });
  }

  Client& m_client = Client::getClient();
  Lines m_heard;
};

TEST_F(AssistantAndMetrics, NothingIsSentWithoutAClientOrAnEvent) {
  const service_apis::TarselMetricEvent event;
  EXPECT_FALSE(send({}) || hear("N"));
  m_client.recordTarselMetricEvent(&event);
  ASSERT_TRUE(m_client.initialize());
  m_client.recordTarselMetricEvent(nullptr);
  EXPECT_TRUE(m_vesk.transactions().empty());
  m_client.recordTarselMetricEvent(&event);
  EXPECT_THAT(m_vesk.transactions(kServices[5]), SizeIs(1));
  const std::string uninitialized = ":Client is not initialized";
  EXPECT_THAT(m_log.take("E"),
              ElementsAre("E sendEvent" + uninitialized, "E registerForDirective" + uninitialized,
                          "E recordTarselMetricEvent" + uninitialized, "E recordTarselMetricEvent:event is null"));
}

TEST_F(AssistantAndMetrics, EveryMessageGivesOneResultByNameEvenBeforeTheAnswer) {
  ASSERT_TRUE(m_client.initialize());
  const auto callback = [this](const std::string& result, bool again) {
    m_heard.push_back(result + (again ? " again" : ""));
    EXPECT_FALSE(m_heard.size() == 2 && send({})) << "callbacks may send, too, but this is refused";
  };
  vesk_endpoint* endpoint = nullptr;
  m_vesk.add_service(kServices[2], [&](const Transaction& call) {
    const Bytes head = request("com.quarlo.orveldelegate.orvelsim.IOrvelSimEventClient",
                               wire("1 64 '1' '2' '3' '4' '5' '6' '7' 1 '8'"));
    EXPECT_EQ(Bytes(call.request.data(), head.size()), head);
    if (endpoint) return Reply{wire("0 0"), 0};
    m_vesk.send(endpoint = call.endpoints.front(), 1, notification(wire("1 0")));
    m_vesk.drain();
    return Reply{wire("0 1"), m_heard.empty() ? -EIO : 0};
  });
  m_log.take();
  EXPECT_TRUE(send(callback));
  for (const char* result : {"1 1", "1 2", "1 3", "1 4", "1 5", "1 6", "1 -1", "", "1"}) {
    m_vesk.send(endpoint, 99, notification(wire(result)));
  }
  m_vesk.send(endpoint, 99, {});
  EXPECT_EQ(m_vesk.call(endpoint, 1, notification(wire("1 1"))).get().result, 1) << "results are one-way";
  EXPECT_THAT(m_heard, ElementsAre("SUCCESS", "SUCCESS_NO_CONTENT", "MARO_DISCONNECTED again", "INTERNAL_ERROR again",
                                   "TIMEOUT again", "INVALID_EVENT", "UNKNOWN_ERROR again", "UNKNOWN_ERROR again",
                                   "UNKNOWN_ERROR again", "UNKNOWN_ERROR again", "UNKNOWN_ERROR again"));
  const std::string line = "I operator():OrvelSimEventStatusCallback, result_str=";
  EXPECT_THAT(m_log.take(), IsSupersetOf({line + "SUCCESS, is_retryable=false", line + "TIMEOUT, is_retryable=true",
                                          std::string("I sendEvent:sendEvent, status=true")}));
}

TEST_F(AssistantAndMetrics, ADirectiveIsSplitIntoItsTextsAndAnEmptyCallbackThrowsIntoLibvesk) {
  ASSERT_TRUE(m_client.initialize());
  answer(kServices[kEvents], wire("0 0"));
  m_log.take();
  EXPECT_TRUE(hear("N") && !hear("") && !send({}));
  const std::string line = "I registerForDirective:registerForDirective, status=";
  EXPECT_THAT(m_log.take("I"),
              IsSupersetOf({line + "1", line + "0", std::string("I sendEvent:sendEvent, status=false")}));
  vesk_endpoint* const endpoint = m_vesk.transactions().back().endpoints.front();
  EXPECT_THROW(endpoint->fn->endpoint_call_oneway(m_runtime, endpoint, 1, nullptr, nullptr), std::bad_function_call);
  for (const char* directive : {"'a' 'b' 'c' 'd' 'e' 'f' 'g'", "'' ~ '' ~ '' ~ ''"}) {
    m_vesk.send("sim_broker_service_N_vesk_endpoint", 1, wire(directive));
  }
  m_vesk.drain();
  EXPECT_THAT(m_heard, ElementsAre("a,b,d,c,e,f,g", ",,,,,,"));
}

}  // namespace
}  // namespace orvel::test
