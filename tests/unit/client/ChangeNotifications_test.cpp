// Subscriptions, from the notification on the wire to the caller's callback.
#include <functional>
#include <random>
#include <regex>
#include <thread>

#include "client/Listeners.h"
#include "orvel/OrvelDelegateClient.h"
#include "support/ClientTest.h"
#include "support/FakeDelegate.h"

namespace orvel::test {
namespace {

using Client = service_apis::OrvelDelegateClient;
using service_apis::find_package;
using ::testing::ElementsAre;

constexpr char kConnectivity[] = "com.quarlo.orvel.androidconnectivitymanager";
constexpr char kName[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";
constexpr char kAdded[] = "com.quarlo.hux.sso.action.account.added";
constexpr char kRemoved[] = "com.quarlo.hux.sso.action.account.removed";
constexpr char kMaro[] = "com.quarlo.speech.CONNECTIVITY_ACTION";
constexpr char kOn[] = "android.intent.action.SCREEN_ON";
constexpr char kOff[] = "android.intent.action.SCREEN_OFF";
constexpr char kTime[] = "com.quarlo.velmos.service.timeservice.clock.TIME_SYNC";

Bytes text_extra(const char* key, const char* value) {
  return Bytes().utf16(key).i32(0).utf16(value);
}
Bytes maro_extra(int value) {
  return Bytes().utf16("com.quarlo.speech.EXTRA_CONNECTIVITY").i32(1).i32(value);
}

class ChangeNotifications : public ClientTest {
 protected:
  ChangeNotifications() : ClientTest("OrvelDelegateClient") {
    start_services();
    m_delegate.start();
    answer(kConnectivity, Bytes().i32(0));
    EXPECT_TRUE(m_client.initialize());
  }
  ~ChangeNotifications() override { m_client.shutdown(); }

  // What is heard, in order, after each of these has been delivered to everybody who listens to the action.
  Lines after(const char* action, const Bytes& message) {
    m_heard.clear();
    EXPECT_GT(m_delegate.send(action, message), 0) << action;
    m_vesk.drain();
    return m_heard;
  }
  std::function<void(bool)> hear_flag(const std::string& name) {
    return [this, name](bool value) { m_heard.push_back(name + (value ? " true" : " false")); };
  }

  FakeDelegate m_delegate{m_vesk};
  Client& m_client = Client::getClient();
  Lines m_heard;
};

TEST_F(ChangeNotifications, EachBroadcastBecomesItsTypedValue) {
  EXPECT_TRUE(m_client.registerForDeviceNameChange([this](const std::string& name) { m_heard.push_back(name); }));
  EXPECT_TRUE(m_client.registerForDeviceRegistrationChange(hear_flag("registered")));
  EXPECT_TRUE(m_client.registerForScreenStateChange(hear_flag("screen")));
  EXPECT_TRUE(m_client.registerForTimeSync(
      [this](long long from, long long to) { m_heard.push_back(std::to_string(from) + ">" + std::to_string(to)); }));
  EXPECT_THAT(m_delegate.subjects(), ElementsAre(kName, kAdded, kRemoved, kOn, kOff, kTime));

  constexpr char kNameExtra[] = "com.quarlo.hux.sso.property.devicename";
  EXPECT_THAT(after(kName, broadcast(kName, "", 1, text_extra(kNameExtra, "Hall"))), ElementsAre("Hall"));
  EXPECT_THAT(after(kName, broadcast(kName, "", 1, text_extra(kNameExtra, ""))), ElementsAre());
  EXPECT_THAT(after(kName, broadcast(kName, "", 1, text_extra("another.property", "x"))), ElementsAre());
  EXPECT_THAT(after(kAdded, broadcast(kAdded, "")), ElementsAre("registered true"));
  EXPECT_THAT(after(kRemoved, broadcast("whatever it says", "")), ElementsAre("registered false"));
  EXPECT_THAT(after(kOn, broadcast(kOn, "")), ElementsAre("screen true"));
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("screen false"));
  const std::string clock = "com.quarlo.velmos.service.timeservice.clock.";
  const Bytes times = Bytes()
                          .utf16(clock + "OLD_TIME_MILLIS")
                          .i32(6)
                          .i64(-5)
                          .utf16(clock + "NEW_TIME_MILLIS")
                          .i32(6)
                          .i64(1'795'000'000'000);
  m_log.take();
  EXPECT_THAT(after(kTime, broadcast(kTime, "", 2, times)), ElementsAre("-5>1795000000000"));
  EXPECT_THAT(m_log.take(),
              ElementsAre("D operator():time sync callback. old_timestamp=-5, new_timestamp=1795000000000"));
  EXPECT_THAT(after(kTime, broadcast(kTime, "")), ElementsAre("0>0"));
}

TEST_F(ChangeNotifications, APackageComesFromTheDataElseFromTheExtraElseTheDataAreIt) {
  const auto hear = [this](const std::string& action, const std::string& package) {
    m_heard.push_back(action + " " + package.substr(0, 60) + " " + std::to_string(package.size()));
  };
  EXPECT_TRUE(m_client.registerForPackageAction("a.P", {}, {"package"}, hear));
  EXPECT_FALSE(m_client.registerForPackageAction("", {}, {}, hear));
  const std::string long_name(1 << 20, 'x');
  const struct {
    std::string data;
    const char* extra;
    std::string heard;
  } rows[] = {
      {"package:com.example.app", "a.b", "a.P com.example.app 15"},
      {"package:", "a.b", "a.P  0"},
      {"see package:x\nand more", "a.b", "a.P x 1"},
      {"xyz", "a.b", "a.P a.b 3"},
      {"xyz", nullptr, "a.P xyz 3"},
      {"", nullptr, "a.P  0"},
      {"package:" + long_name, nullptr, "a.P " + long_name.substr(0, 60) + " 1048576"},
  };
  for (const auto& row : rows) {
    const Bytes extras = row.extra ? text_extra("packageName", row.extra) : Bytes();
    EXPECT_THAT(after("a.P", broadcast("a.P", row.data.c_str(), row.extra ? 1 : 0, extras)), ElementsAre(row.heard));
  }
}

TEST(FindPackage, FindsWhatTheRegularExpressionFinds) {
  const std::regex expression("package:(.*)");
  std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts every time
  const std::string pieces[] = {"package:",           "package",      ":",   "p", "\n", "\r",
                                std::string(1, '\0'), "\xe2\x80\xa8", "a.b", " "};
  int found = 0;
  for (int n = 0; n < 20000; ++n) {
    std::string text;
    for (auto piece = random() % 6; piece > 0; --piece) text += pieces[random() % std::size(pieces)];
    std::smatch match;
    const bool matches = std::regex_search(text, match, expression);
    const std::optional<std::string> package = find_package(text);
    ASSERT_EQ(package.has_value(), matches) << ::testing::PrintToString(text);
    if (!matches) continue;
    ASSERT_EQ(*package, match[1].str()) << ::testing::PrintToString(text);
    ++found;
  }
  EXPECT_GT(found, 1000);
}

TEST_F(ChangeNotifications, TheConnectivityCallbackAgreesWithTheClientAndCannotCallIt) {
  bool inside = true;
  EXPECT_TRUE(m_client.registerForMaroConnectivityChange([&](bool connected) {
    hear_flag("maro")(connected);
    inside = m_client.isMaroConnected() || m_client.registerForScreenStateChange({}) || m_client.initialize();
    m_client.shutdown();
  }));
  for (const int value : {0, 7, 1}) {
    m_log.take();
    EXPECT_THAT(after(kMaro, broadcast(kMaro, "", 1, maro_extra(value))),
                ElementsAre(value ? "maro true" : "maro false"));
    EXPECT_EQ(m_client.isMaroConnected(), value != 0);
    EXPECT_FALSE(inside);
    EXPECT_THAT(m_log.take("E"),
                ElementsAre("E isMaroConnected:Called from the connectivity callback",
                            "E registerForScreenStateChange:Called from the connectivity callback",
                            "E initialize:Called from the connectivity callback", "E shutdown:Called from a callback"));
  }
  EXPECT_THAT(after(kMaro, broadcast(kMaro, "")), ElementsAre("maro false"));
  EXPECT_FALSE(m_client.isMaroConnected());
  after(kMaro, broadcast(kMaro, "", 1, maro_extra(1)));
  EXPECT_TRUE(m_client.isMaroConnected()) << "and nothing is left locked";
}

TEST_F(ChangeNotifications, ASettingThatIsNoNumberIsThrownOnTheRunLoopAndTheClientGoesOn) {
  EXPECT_TRUE(
      m_client.registerForSecureSettingIntChange("k", 7, [this](int v) { m_heard.push_back(std::to_string(v)); }));
  EXPECT_FALSE(m_client.registerForSecureSettingIntChange("", 7, {}));
  const struct {
    const char* value;
    Lines heard;
    int result;
  } rows[] = {{"42", {"42"}, 0},         {"", {"7"}, 0}, {" -3x", {"-3"}, 0}, {"seven", {}, -EIO},
              {"99999999999", {}, -EIO}, {"8", {"8"}, 0}};
  vesk_endpoint* const endpoint = m_delegate.registrations().at(0).endpoint;
  for (const auto& row : rows) {
    m_heard.clear();
    EXPECT_EQ(m_vesk.call(endpoint, 1, setting("k", row.value)).get().result, row.result) << row.value;
    EXPECT_EQ(m_heard, row.heard) << row.value;
  }
}

TEST_F(ChangeNotifications, BothHalvesOfAStateAreTriedWhicheverFailsAndTheCallbackKeepsItsOwn) {
  int registrations = 0;
  m_delegate.before_answer = [&] {
    if (++registrations == 1) m_delegate.refuse(28, Bytes().i32(-3).null().i32(0));
    if (registrations == 2) m_delegate.accept(28);
  };
  const auto count = [this, calls = 0](bool) mutable { m_heard.push_back(std::to_string(++calls)); };
  EXPECT_FALSE(m_client.registerForScreenStateChange(count));
  EXPECT_EQ(registrations, 2);
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("1"));
  m_delegate.before_answer = nullptr;
  m_clock.at_sleep(1, [this] { m_delegate.start(); });
  m_vesk.kill_service(FakeDelegate::kName);
  m_vesk.drain();
  EXPECT_THAT(m_delegate.subjects(), ElementsAre(kOff)) << "the one that was taken survives";
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("2"));
}

TEST_F(ChangeNotifications, ACallbackMayCallTheClientAndSubscribeOnAndThrow) {
  int depth = 0;
  std::function<void(bool)> callback = [&](bool on) {
    hear_flag("screen")(on);
    EXPECT_EQ(m_client.getDeviceName(), "a name");
    EXPECT_TRUE(m_client.isMaroConnected() || !m_client.isScreenOn());
    const bool first = ++depth == 1;
    EXPECT_TRUE(!first || m_client.registerForScreenStateChange(callback));
    if (depth == 2) throw std::runtime_error("a callback that throws");
  };
  EXPECT_TRUE(m_client.registerForScreenStateChange(callback));
  EXPECT_TRUE(m_client.registerForScreenStateChange({})) << "an empty callback is an error only when it is called";
  EXPECT_THAT(after(kOn, broadcast(kOn, "")), ElementsAre("screen true"));
  EXPECT_THAT(after(kOff, broadcast(kOff, "")), ElementsAre("screen false", "screen false"));
}

TEST_F(ChangeNotifications, TheNetworkCallbackIsTheConnectivityServices) {
  EXPECT_TRUE(m_client.registerForNetworkConnectivityChange(hear_flag("network")));
  vesk_endpoint* const endpoint = m_vesk.transactions(kConnectivity).at(0).endpoints.at(0);
  m_vesk.send(endpoint, 1, Bytes());
  m_vesk.send(endpoint, 6, Bytes());
  m_vesk.drain();
  EXPECT_THAT(m_heard, ElementsAre("network true", "network false"));
  EXPECT_TRUE(m_client.unregisterForNetworkConnectivityChange());
  EXPECT_EQ(m_vesk.transactions(kConnectivity).back().code, 5U);
  m_client.shutdown();
  EXPECT_FALSE(m_client.registerForNetworkConnectivityChange({}) || m_client.registerForTimeSync({}));
}

}  // namespace
}  // namespace orvel::test
