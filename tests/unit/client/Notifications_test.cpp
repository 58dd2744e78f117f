// Subscriptions, from the notification on the wire to the caller's callback.
#include <functional>
#include <stdexcept>

#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using ::testing::ElementsAre;

constexpr char kName[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";
constexpr char kAdded[] = "com.quarlo.hux.sso.action.account.added";
constexpr char kRemoved[] = "com.quarlo.hux.sso.action.account.removed";
constexpr char kMaro[] = "com.quarlo.speech.CONNECTIVITY_ACTION";
constexpr char kOn[] = "android.intent.action.SCREEN_ON";
constexpr char kOff[] = "android.intent.action.SCREEN_OFF";
constexpr char kTime[] = "com.quarlo.velmos.service.timeservice.clock.TIME_SYNC";

class ChangeNotifications : public ClientTest {
 protected:
  ChangeNotifications() : ClientTest("OrvelDelegateClient") {
    start_services();
    EXPECT_TRUE(m_client.initialize());
  }
  ~ChangeNotifications() override { m_client.shutdown(); }

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

  Client& m_client = Client::getClient();
  Lines m_heard;
};

TEST_F(ChangeNotifications, EachBroadcastBecomesItsTypedValues) {
  for (const Method& each : kMethods) {
    if (each.renewed) subscribe(each.name);
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
      {kOn, "", 0, "", {"true"}},
      {kOff, "", 0, "", {"false"}},
      {kTime, "", 0, "", {"0,0"}},
      {kTime,
       "",
       2,
       "'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 -5L "
       "'com.quarlo.velmos.service.timeservice.clock.NEW_TIME_MILLIS' 6 1795000000000L",
       {"-5,1795000000000"}},
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
  const struct {
    const char* value;
    Lines heard;
    int result;
  } rows[] = {{"42", {"42"}, 0},         {"", {"7"}, 0}, {" -3x", {"-3"}, 0}, {"seven", {}, -EIO},
              {"99999999999", {}, -EIO}, {"8", {"8"}, 0}};
  vesk_endpoint* const endpoint = registrations().at(0).endpoints.at(0);
  for (const auto& row : rows) {
    m_heard.clear();
    EXPECT_EQ(m_vesk.call(endpoint, 1, setting("k", row.value)).get().result, row.result) << row.value;
    EXPECT_EQ(m_heard, row.heard) << row.value;
  }
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
  EXPECT_THAT(after(kOn, broadcast(kOn, "")), ElementsAre("on"));
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("off", "off"));
}

TEST_F(ChangeNotifications, TheNetworkCallbackIsTheConnectivityServices) {
  subscribe("registerForNetworkConnectivityChange");
  vesk_endpoint* const endpoint = m_vesk.transactions().back().endpoints.at(0);
  for (const unsigned code : {1U, 6U}) m_vesk.send(endpoint, code, Bytes());
  m_vesk.drain();
  EXPECT_THAT(m_heard, ElementsAre("true", "false"));
}

}  // namespace
}  // namespace orvel::test
