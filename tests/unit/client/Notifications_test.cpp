// Notifications, from the bytes that a service sends to the caller's callback.
#include <cstring>
#include <functional>
#include <stdexcept>

#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using namespace ::testing;  // NOLINT(google-build-using-namespace): its matchers

constexpr char kName[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";
constexpr char kAdded[] = "com.quarlo.hux.sso.action.account.added";
constexpr char kRemoved[] = "com.quarlo.hux.sso.action.account.removed";
constexpr char kMaro[] = "com.quarlo.speech.CONNECTIVITY_ACTION";
constexpr char kOff[] = "android.intent.action.SCREEN_OFF";
constexpr char kTimes[] =
    "'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 -5L "
    "'com.quarlo.velmos.service.timeservice.clock.NEW_TIME_MILLIS' 6 1795000000000L";

class ChangeNotifications : public StartedClient {
 protected:
  // Makes the subscription of the table; what it brings goes to m_heard.
  void subscribe(const char* name) {
    const Hear hear = [this](const std::string& values) { m_heard.push_back(values); };
    EXPECT_EQ(method(name).call(m_client, hear), "true") << name;
  }
  // What is heard, in order, after each of these has been delivered to all who listen to the action.
  Lines after(const char* action, const Bytes& message) {
    m_heard.clear();
    EXPECT_GT(send(action, message), 0) << action;
    m_vesk.drain();
    return m_heard;
  }
};

class Broadcasts : public ChangeNotifications, public WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(ForMethods, Broadcasts, Values("registerFor", "subscribe"),
                         [](const auto& each) { return std::string(each.param); });

TEST_P(Broadcasts, EachBecomesItsTypedValues) {
  for (const Method& each : kMethods) {
    const std::string name = each.name;
    if (each.renewed && (name.rfind(GetParam(), 0) == 0 || name == "subscribeBroadcast")) subscribe(each.name);
  }
  const std::string long_name(1 << 20, 'x');
  const struct {
    const char* action;
    std::string data;
    int count;
    const char* extras;
    Lines heard;
  } rows[] = {
      {kName, "", 1, "'com.quarlo.hux.sso.property.devicename' 0 'Hall'", {"Hall"}},
      {kName, "", 1, "'com.quarlo.hux.sso.property.devicename' 0 ''", {}},
      {kName, "", 1, "'another.property' 0 'x'", {}},
      {kAdded, "", 0, "", {"true"}},
      {kRemoved, "", 0, "", {"false"}},
      {kScreenOnAction, "", 0, "", {"true"}},
      {kOff, "", 0, "", {"false"}},
      {kTimeSyncAction, "", 0, "", {"0,0"}},
      {kTimeSyncAction, "", 2, kTimes, {"-5,1795000000000"}},
      {kMaro, "", 1, "'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 0", {"false"}},
      {kMaro, "", 1, "'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 7", {"true"}},
      {kMaro, "", 0, "", {"false"}},
      {kMaro, "", 1, "'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1", {"true"}},  // as later tests expect it
      // The package is in the data, else in the extra, else the data are it.
      {"a.P", "package:com.example.app", 1, "'packageName' 0 'a.b'", {"any,com.example.app"}},
      {"a.P", "package:", 1, "'packageName' 0 'a.b'", {"any,"}},
      {"a.P", "see package:x package:y\nand more", 0, "", {"any,x package:y"}},
      {"a.P", "package:x\rand more", 0, "", {"any,x"}},
      {"a.P", "package", 1, "'packageName' 0 'a.b'", {"any,a.b"}},
      {"a.P", "xyz", 0, "", {"any,xyz"}},
      {"a.P", "", 0, "", {"any,"}},
      {"a.P", "package:" + long_name, 0, "", {"any," + long_name}},
      {"a.B", "package:x", 0, "", {"any,package:x"}},
  };
  m_log.take();
  for (const auto& row : rows) {
    const Bytes message = broadcast("any", row.data.c_str(), row.count, wire(row.extras));
    EXPECT_EQ(after(row.action, message), row.heard) << row.action << " " << row.data.substr(0, 40) << row.extras;
    EXPECT_TRUE(row.action != kMaro || m_client.isMaroConnected() == (row.heard[0] == "true"));
  }
  EXPECT_THAT(m_log.take(),
              ElementsAre("D operator():time sync callback. old_timestamp=0, new_timestamp=0",
                          "D operator():time sync callback. old_timestamp=-5, new_timestamp=1795000000000"));
}

TEST_F(ChangeNotifications, ASettingThatIsNotANumberIsThrownOnTheRunLoopAndTheClientGoesOn) {
  subscribe("registerForSecureSettingIntChange");
  EXPECT_FALSE(m_client.registerForSecureSettingIntChange("", 7, {}));
  EXPECT_FALSE(m_client.registerForPackageAction("", {}, {}, {}));
  vesk_endpoint* const endpoint = registrations().at(0).endpoints.at(0);
  for (const char* value : {"42", "", "seven", "99999999999", "8"}) {
    const bool is_number = std::strchr("428", value[0]) != nullptr;
    EXPECT_EQ(m_vesk.call(endpoint, 1, setting("k", value)).get().result, is_number ? 0 : -EIO) << value;
  }
  EXPECT_THAT(m_heard, ElementsAre("42", "7", "8"));
}

TEST_F(ChangeNotifications, BothHalvesOfAStateAreTriedAndTheOneThatIsTakenStaysWithTheStateOfItsCallback) {
  int tried = 0;
  m_vesk.add_service(kServices[kDelegate], [&](const Transaction&) {
    return Reply{wire("0"), ++tried == 1 ? -EIO : 0};
  });
  const auto count = [this, calls = 0](bool) mutable { m_heard.push_back(std::to_string(++calls)); };
  EXPECT_FALSE(m_client.registerForScreenStateChange(count));
  EXPECT_EQ(tried, 2);
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("1"));
  die(kServices[kDelegate]);
  m_vesk.drain();
  EXPECT_THAT(subjects(), ElementsAre(kOff));
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("2"));
}

TEST_F(ChangeNotifications, ACallbackMayCallTheClientAndSubscribeOnAndThrow) {
  int depth = 0;
  std::function<void(bool)> callback = [&](bool on) {
    m_heard.emplace_back(on ? "on" : "off");
    EXPECT_EQ(m_client.getDeviceName(), "Hall");
    EXPECT_TRUE(m_client.isMaroConnected() && m_client.isScreenOn());
    const bool first = ++depth == 1;
    EXPECT_TRUE(!first || m_client.registerForScreenStateChange(callback));
    if (depth == 2) throw std::runtime_error("a callback that throws");
  };
  EXPECT_TRUE(m_client.registerForScreenStateChange(callback));
  EXPECT_TRUE(m_client.registerForScreenStateChange({})) << "an empty callback is an error only when it is called";
  EXPECT_THAT(after(kScreenOnAction, broadcast(kScreenOnAction, "")), ElementsAre("on"));
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("off", "off"));
}

using AssistantAndMetrics = StartedClient;

TEST_F(AssistantAndMetrics, EveryMessageGivesOneResultByNameEvenBeforeTheAnswer) {
  vesk_endpoint* endpoint = nullptr;
  m_vesk.add_service(kServices[kEvents], [&](const Transaction& call) {
    m_vesk.send(endpoint = call.endpoints.front(), 1, notification(wire("1 0")));
    m_vesk.drain();
    return Reply{wire("0 1"), m_heard.empty() ? -EIO : 0};
  });
  const Hear hear = [this](const std::string& result) { m_heard.push_back(result); };
  EXPECT_EQ(method("sendEvent").call(m_client, hear), "true");
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
  m_vesk.send("sim_broker_service_N_vesk_endpoint", 1, wire("'a' 'b' 'c' 'd' 'e' 'f' 'g'"));
  m_vesk.drain();
  EXPECT_THAT(m_heard, ElementsAre("a,b,d,c,e,f,g"));
  m_log.take();
  EXPECT_FALSE(m_client.registerForDirective("", [](auto&&...) {}));
  EXPECT_THAT(m_log.take("I"), ElementsAre("I registerForDirective:registerForDirective, status=0"));
}

}  // namespace
}  // namespace orvel::test
