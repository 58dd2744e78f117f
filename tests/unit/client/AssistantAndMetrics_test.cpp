// The assistant's events and directives, from the services back to the caller.
#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using namespace ::testing;  // NOLINT(google-build-using-namespace): its matchers

class AssistantAndMetrics : public ClientTest {
 protected:
  AssistantAndMetrics() : ClientTest("OrvelDelegateClient") {
    start_services();
    EXPECT_TRUE(m_client.initialize());
  }
  ~AssistantAndMetrics() override { m_client.shutdown(); }

  Client& m_client = Client::getClient();
  Lines m_heard;
};

TEST_F(AssistantAndMetrics, EveryMessageGivesOneResultByNameEvenBeforeTheAnswer) {
  const Method& send_event = method("sendEvent");
  vesk_endpoint* endpoint = nullptr;
  m_vesk.add_service(kServices[kEvents], [&](const Transaction& call) {
    if (endpoint) return Reply{wire("0 0"), 0};
    m_vesk.send(endpoint = call.endpoints.front(), 1, notification(wire("1 0")));
    m_vesk.drain();
    return Reply{wire("0 1"), m_heard.empty() ? -EIO : 0};
  });
  m_log.take();
  EXPECT_EQ(send_event.call(m_client,
                            [&](const std::string& result) {
                              m_heard.push_back(result);
                              // Callbacks may send, too, but this is refused.
                              EXPECT_FALSE(m_heard.size() == 2 && send_event.call(m_client, {}) == "true");
                            }),
            "true");
  for (const char* result : {"1 1", "1 2", "1 3", "1 4", "1 5", "1 6", "1 -1", "", "1"}) {
    m_vesk.send(endpoint, 99, notification(wire(result)));
  }
  m_vesk.send(endpoint, 99, {});
  EXPECT_EQ(m_vesk.call(endpoint, 1, notification(wire("1 1"))).get().result, 1) << "results are one-way";
  EXPECT_THAT(m_heard,
              ElementsAre("SUCCESS,false", "SUCCESS_NO_CONTENT,false", "MARO_DISCONNECTED,true", "INTERNAL_ERROR,true",
                          "TIMEOUT,true", "INVALID_EVENT,false", "UNKNOWN_ERROR,true", "UNKNOWN_ERROR,true",
                          "UNKNOWN_ERROR,true", "UNKNOWN_ERROR,true", "UNKNOWN_ERROR,true"));
  const std::string line = "I operator():OrvelSimEventStatusCallback, result_str=";
  EXPECT_THAT(m_log.take(), IsSupersetOf({line + "SUCCESS, is_retryable=false", line + "TIMEOUT, is_retryable=true"}));
}

TEST_F(AssistantAndMetrics, ADirectiveIsSplitIntoItsTexts) {
  method("registerForDirective").call(m_client, [this](const std::string& texts) { m_heard.push_back(texts); });
  for (const char* directive : {"'a' 'b' 'c' 'd' 'e' 'f' 'g'", "'' ~ '' ~ '' ~ ''"}) {
    m_vesk.send("sim_broker_service_N_vesk_endpoint", 1, wire(directive));
  }
  m_vesk.drain();
  EXPECT_THAT(m_heard, ElementsAre("a,b,d,c,e,f,g", ",,,,,,"));
  m_log.take();
  EXPECT_FALSE(m_client.registerForDirective("", [](auto&&...) {}));
  EXPECT_THAT(m_log.take("I"), ElementsAre("I registerForDirective:registerForDirective, status=0"));
}

TEST_F(AssistantAndMetrics, AnEmptyCallbackThrowsIntoLibvesk) {
  EXPECT_TRUE(m_client.sendEvent("", "", "", "", "", "", "", true, "", {}));
  vesk_endpoint* const endpoint = m_vesk.transactions().back().endpoints.front();
  EXPECT_THROW(endpoint->fn->endpoint_call_oneway(m_runtime, endpoint, 1, nullptr, nullptr), std::bad_function_call);
}

}  // namespace
}  // namespace orvel::test
