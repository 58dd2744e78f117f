#include "support/Methods.h"

#include <algorithm>
#include <optional>
#include <type_traits>
#include <vector>

#include "orvel/OrvelIntent.h"
#include "orvel/TarselMetricEvent.h"

namespace orvel::test {
namespace {

using service_apis::AssistantEvent;
using service_apis::OrvelIntent;
using service_apis::Subscription;
using Texts = std::vector<std::string>;

constexpr int kNone = Method::kNoService;

template <typename Value>
std::string shown(const Value& value) {
  if constexpr (std::is_same_v<Value, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::is_arithmetic_v<Value>) {
    return std::to_string(value);
  } else {
    return value;
  }
}
std::string shown(const Texts& texts) {
  std::string all;
  for (const std::string& text : texts) all += "[" + text + "]";
  return all;
}
std::string shown(const std::optional<std::string>& text) {
  return text.value_or("nothing");
}
std::string shown(const OrvelIntent& intent) {
  return intent.action + "," + intent.data;
}
std::string shown(const service_apis::EventOutcome& outcome) {
  return outcome.result + "," + shown(outcome.retryable);
}
// One that is made lasts until shutdown().
std::string shown(Subscription subscription) {
  const bool made = static_cast<bool>(subscription);
  subscription.keep();
  return shown(made);
}

// A callback that tells `hear` its values.
auto to(const Hear& hear) {
  return [hear](const auto& first, const auto&... more) {
    if (hear) hear((shown(first) + ... + ("," + shown(more))));
  };
}

// The method with these arguments; of overloads, the one with that result.
template <typename Result, typename... Parameters, typename... Arguments>
Call ask(Result (Client::*method)(Parameters...), Arguments... arguments) {
  return [=](Client& client, const Hear&) { return shown((client.*method)(arguments...)); };
}

// The method with these arguments and a callback behind them.
template <typename Subscribe, typename... Arguments>
Call subscribe(Subscribe method, Arguments... arguments) {
  return [=](Client& client, const Hear& hear) { return shown((client.*method)(arguments..., to(hear))); };
}

// The method with a list that it fills.
Call list(bool (Client::*method)(Texts&)) {
  return [=](Client& client, const Hear&) {
    Texts names = {"old"};
    const bool known = (client.*method)(names);
    return shown(known) + shown(names);
  };
}

const OrvelIntent* intent() {
  static const OrvelIntent* const made = [] {
    auto* const intent = new OrvelIntent{"a", "d", "", "", {"p", "c"}, {}, {"x"}, 5};
    intent->extras.put("n", 1);
    intent->extras.put("l", 2LL);
    intent->extras.put("s", std::string("t"));
    return intent;
  }();
  return made;
}
constexpr char kIntent[] = "1 132 'a' 'd' ~ ~ 1 'p' 'c' 1 60 3 'n' 1 1 'l' 6 2L 's' 0 't' 1 'x' 5";
constexpr char kIntentForR[] = "1 132 'a' 'd' ~ ~ 1 'p' 'c' 1 60 3 'n' 1 1 'l' 6 2L 's' 0 't' 1 'x' 5 'r'";

std::string process_state(Client& client, const Hear&) {
  bool found = true;
  bool focused = true;
  int importance = 55;
  const bool known = client.getAppProcessState("p", found, importance, focused);
  return shown(known) + " " + shown(found) + " " + shown(importance) + " " + shown(focused);
}

std::string record_metric(Client& client, const Hear&) {
  service_apis::TarselMetricEvent event;
  std::string text = "t";
  event.addStringEvent("s", text);
  event.addLongEvent("l", 1);
  event.addDoubleEvent("d", 1.5);
  event.addBooleanEvent("b", true);
  client.recordTarselMetricEvent(&event);
  return "";
}
// 1.5 as its bits.
constexpr char kMetric[] = "1 100 '' '' 4 'b' 4 1 'd' 2 4609434218613702656L 'l' 1 1L 's' 0 't'";

// One that is there is ended.
std::string unsubscribe_network(Client& client, const Hear& hear) {
  client.registerForNetworkConnectivityChange(to(hear));
  return shown(client.unregisterForNetworkConnectivityChange());
}

// Ends at once, so that the namespace is free for the next.
std::string subscribe_directive(Client& client, const Hear& hear) {
  const Subscription made = client.subscribeDirective("S", to(hear));
  return shown(static_cast<bool>(made));
}

constexpr char kDevice[] = "1 '1' '2' '3' 'type' '5' '6' '7' '8' '9' '10'";
constexpr char kApplication[] = "1 1 ~ ~ ~ ~ ~ ~ ~ ~ ~ ~ ~ ~ 0 0 0 0 0 0 0 0 0 0 ~ ~ ~ 0 1 4 2 'k' 1 5 'k' 0 'v'";
constexpr char kPackage[] = "1 1 'p' -7 '1.0' 1L 2L 0";
constexpr char kReceivers[] = "3 1 1 1 1 'r' ~ 0 0 0 0 1 1 1 1 '' ~ 0 0 0 0 1 1 1 1 'r' ~ 0 0 0 0";
constexpr char kProcesses[] =
    "3 1 'f' 0 0 2 'q' 'p' 0 0 100 0 0 0 ~ 0 0 0 0L 1 'b' 0 0 2 'x' 'p' 0 0 125 0 0 0 ~ 0 0 2 0L "
    "1 'g' 0 0 2 'p' '' 0 0 100 0 0 0 ~ 0 0 1 0L";

constexpr char kNameChanged[] = "'com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed' 0 0";
constexpr char kAccountAdded[] = "'com.quarlo.hux.sso.action.account.added' 0 0";
constexpr char kAccountRemoved[] = "'com.quarlo.hux.sso.action.account.removed' 0 0";
constexpr char kMaroConnectivity[] = "'com.quarlo.speech.CONNECTIVITY_ACTION' 0 0";
constexpr char kScreenOn[] = "'android.intent.action.SCREEN_ON' 0 0";
constexpr char kScreenOff[] = "'android.intent.action.SCREEN_OFF' 0 0";
constexpr char kTimeSync[] = "'com.quarlo.velmos.service.timeservice.clock.TIME_SYNC' 0 0";

}  // namespace

// clang-format off
const std::array<Method, 56>& kMethods = *new std::array<Method, 56>{{
    {"isMaroConnected", ask(&Client::isMaroConnected), kNone, {}, "true", "true", "true"},
    {"isNetworkConnected", ask(&Client::isNetworkConnected), kNone, {}, "false", "false", "false"},
    {"getDeviceName", ask(&Client::getDeviceName), kDelegate, {{{33, "", "'Hall'"}}}, "Hall", "", ""},
    {"getDeviceSerialNumber", ask(&Client::getDeviceSerialNumber), kDelegate, {{{42, "", "'G1'"}}}, "G1", "", ""},
    {"getDeviceType", ask(&Client::getDeviceType), kDelegate, {{{14, "", kDevice}}}, "type", "", ""},
    {"getCustomerDirectedID", ask(&Client::getCustomerDirectedID), kDelegate, {{{32, "", "'owner'"}}}, "owner", "", ""},
    {"getCountryOfResidence", ask(&Client::getCountryOfResidence), kDelegate, {{{18, "", "'DE'"}}}, "DE", "", ""},
    {"getPreferredMarketPlace", ask(&Client::getPreferredMarketPlace), kDelegate, {{{17, "", "'shop'"}}},
     "shop", "", ""},
    {"getSecureSettingInt", ask(&Client::getSecureSettingInt, "k", 7), kDelegate, {{{15, "'k'", "'42'"}}},
     "42", "7", "7"},
    {"isDeviceRegistered", ask(&Client::isDeviceRegistered), kDelegate, {{{32, "", "'owner'"}}},
     "true", "false", "false"},
    {"isScreenOn", ask(&Client::isScreenOn), kPower, {{{1, "", "-1"}}}, "true", "false", "false"},
    {"acquirePartialWakeLock", ask(&Client::acquirePartialWakeLock), kPower, {{{3, "", "2"}, {4, "1 500L", ""}}},
     "true", "false", "false"},
    {"acquireFullWakeLock", ask(&Client::acquireFullWakeLock), kPower, {{{2, "", ""}}}, "true", "false", "false"},

    {"registerForDeviceNameChange", subscribe(&Client::registerForDeviceNameChange),
     kDelegate, {{{28, kNameChanged, ""}}}, "true", "false", "false", true},
    {"registerForDeviceRegistrationChange", subscribe(&Client::registerForDeviceRegistrationChange),
     kDelegate, {{{28, kAccountAdded, ""}, {28, kAccountRemoved, ""}}}, "true", "false", "false", true},
    {"registerForMaroConnectivityChange", subscribe(&Client::registerForMaroConnectivityChange),
     kDelegate, {{{28, kMaroConnectivity, ""}}}, "true", "false", "false", true},
    // Both say true when the request fails, too.
    {"registerForNetworkConnectivityChange", subscribe(&Client::registerForNetworkConnectivityChange),
     kConnectivity, {{{4, "", ""}}}, "true", "true", "false"},
    {"unregisterForNetworkConnectivityChange", unsubscribe_network,
     kConnectivity, {{{4, "", ""}, {5, "", ""}}}, "true", "true", "false"},
    {"registerForScreenStateChange", subscribe(&Client::registerForScreenStateChange),
     kDelegate, {{{28, kScreenOn, ""}, {28, kScreenOff, ""}}}, "true", "false", "false", true},
    {"registerForPackageAction", subscribe(&Client::registerForPackageAction, "a.P", Texts{"t"}, Texts{"package", "x"}),
     kDelegate, {{{28, "'a.P' 1 't' 2 'package' 'x'", ""}}}, "true", "false", "false", true},
    {"registerForTimeSync", subscribe(&Client::registerForTimeSync),
     kDelegate, {{{28, kTimeSync, ""}}}, "true", "false", "false", true},
    {"registerForSecureSettingIntChange", subscribe(&Client::registerForSecureSettingIntChange, "k", 7),
     kDelegate, {{{34, "'k'", ""}}}, "true", "false", "false", true},

    {"subscribeDeviceNameChange", subscribe(&Client::subscribeDeviceNameChange),
     kDelegate, {{{28, kNameChanged, ""}}}, "true", "false", "false", true},
    {"subscribeDeviceRegistrationChange", subscribe(&Client::subscribeDeviceRegistrationChange),
     kDelegate, {{{28, kAccountAdded, ""}, {28, kAccountRemoved, ""}}}, "true", "false", "false", true},
    {"subscribeMaroConnectivityChange", subscribe(&Client::subscribeMaroConnectivityChange),
     kDelegate, {{{28, kMaroConnectivity, ""}}}, "true", "false", "false", true},
    {"subscribeNetworkConnectivityChange", subscribe(&Client::subscribeNetworkConnectivityChange),
     kConnectivity, {{{4, "", ""}}}, "true", "false", "false"},
    {"subscribeScreenStateChange", subscribe(&Client::subscribeScreenStateChange),
     kDelegate, {{{28, kScreenOn, ""}, {28, kScreenOff, ""}}}, "true", "false", "false", true},
    {"subscribePackageAction", subscribe(&Client::subscribePackageAction, "a.P", Texts{"t"}, Texts{"package", "x"}),
     kDelegate, {{{28, "'a.P' 1 't' 2 'package' 'x'", ""}}}, "true", "false", "false", true},
    {"subscribeTimeSync", subscribe(&Client::subscribeTimeSync),
     kDelegate, {{{28, kTimeSync, ""}}}, "true", "false", "false", true},
    {"subscribeSecureSettingIntChange", subscribe(&Client::subscribeSecureSettingIntChange, "k", 7),
     kDelegate, {{{34, "'k'", ""}}}, "true", "false", "false", true},
    {"subscribeBroadcast", subscribe(&Client::subscribeBroadcast, "a.B", Texts{"t"}, Texts{"x"}),
     kDelegate, {{{28, "'a.B' 1 't' 1 'x'", ""}}}, "true", "false", "false", true},
    {"getSecureSetting", ask(&Client::getSecureSetting, "k"), kDelegate, {{{15, "'k'", "'42'"}}},
     "42", "nothing", "nothing"},
    {"subscribeSecureSetting", subscribe(&Client::subscribeSecureSetting, "k"),
     kDelegate, {{{34, "'k'", ""}}}, "true", "false", "false", true},

    {"broadcastIntentWithIntKey", ask(&Client::broadcastIntentWithIntKey, "A", "P", "K", "X", 5),
     kDelegate, {{{27, "1 80 'A' ~ ~ ~ 1 'P' 'K' 1 20 1 'X' 1 5 0 0", ""}}}, "true", "false", "false"},
    {"broadcastIntent", ask(&Client::broadcastIntent, intent()), kDelegate, {{{27, kIntent, ""}}},
     "true", "false", "false"},
    {"broadcastIntentWithPermission", ask(&Client::broadcastIntentWithPermission, intent(), "r"),
     kDelegate, {{{38, kIntentForR, ""}}}, "true", "false", "false"},
    {"startActivity", ask(&Client::startActivity, intent()), kDelegate, {{{37, kIntent, ""}}},
     "true", "false", "false"},
    {"startForegroundService", ask(&Client::startForegroundService, intent()), kDelegate, {{{30, kIntent, ""}}},
     "true", "false", "false"},
    {"startService", ask(&Client::startService, intent()), kDelegate, {{{29, kIntent, ""}}}, "true", "false", "false"},
    {"launchApplicationWithPackageName", ask(&Client::launchApplicationWithPackageName, "p"),
     kDelegate, {{{60, "'p'", "1 1 'm' ~ ~ ~ 1 'q' 'c' 0"}, {37, "1 56 'm' ~ ~ ~ 1 'q' 'c' 0 0 0", ""}}},
     "true", "false", "false"},

    {"getApplicationInfoMetaData", ask<int>(&Client::getApplicationInfoMetaData, "p", -1, "k", 7),
     kDelegate, {{{53, "'p' -1L", kApplication}}}, "5", "7", "7"},
    {"getApplicationInfoMetaData", ask<std::string>(&Client::getApplicationInfoMetaData, "p", 1, "k", "-"),
     kDelegate, {{{53, "'p' 1L", kApplication}}}, "v", "-", "-"},
    {"getPackageVersionCode", ask(&Client::getPackageVersionCode, "p", 5), kDelegate, {{{54, "'p' 5L", kPackage}}},
     "-7", "", ""},
    {"getPackageVersionName", ask(&Client::getPackageVersionName, "p", 6), kDelegate, {{{54, "'p' 6L", kPackage}}},
     "1.0", "", ""},
    {"getRawResourceAsString", ask(&Client::getRawResourceAsString, "p", 7), kDelegate, {{{55, "'p' 7", "'text'"}}},
     "text", "", ""},
    {"hasSystemFeature", ask(&Client::hasSystemFeature, "f"), kDelegate, {{{26, "'f'", "-256"}}},
     "true", "false", "false"},
    {"getPackageNamesForUid", ask(&Client::getPackageNamesForUid, -5), kDelegate, {{{21, "-5", "2 'q' 'p'"}}},
     "[q][p]", "", ""},
    {"getBroadcastReceiverPackageNames", ask(&Client::getBroadcastReceiverPackageNames, "a", -2),
     kDelegate, {{{59, "'a' -2L", kReceivers}}}, "[r][r]", "", ""},
    // True when the request fails, too.
    {"getInstalledPackageNames", list(&Client::getInstalledPackageNames),
     kPackages, {{{2, "", "2 'q' 'p'"}}}, "true[q][p]", "true", "false"},
    {"getForegroundPackages", list(&Client::getForegroundPackages),
     kActivities, {{{2, "", kProcesses}}}, "true[][p][q]", "false", "false"},
    {"getAppProcessState", process_state, kActivities, {{{2, "", kProcesses}}},
     "true true 100 false", "false true 55 true", "false true 55 true"},

    {"sendEvent", subscribe(&Client::sendEvent, "1", "2", "3", "4", "5", "6", "7", true, "8"),
     kEvents, {{{2, "1 64 '1' '2' '3' '4' '5' '6' '7' 1 '8'", "1"}}}, "true", "false", "false"},
    {"send", subscribe(&Client::send, AssistantEvent{"1", "2", "3", "4", "5", "6", "7", true, "8"}),
     kEvents, {{{2, "1 64 '1' '2' '3' '4' '5' '6' '7' 1 '8'", "1"}}}, "true", "false", "false"},
    // Published under a name, not sent to the service.
    {"registerForDirective", subscribe(&Client::registerForDirective, "N"), kDirectives, {},
     "true", "false", "false", true},
    {"subscribeDirective", subscribe_directive, kDirectives, {}, "true", "false", "false"},
    {"recordTarselMetricEvent", record_metric, kMetrics, {{{2, kMetric, ""}}}, "", "", ""},
}};
// clang-format on

const Method& method(const std::string& name) {
  return *std::find_if(kMethods.begin(), kMethods.end(), [&](const Method& each) { return each.name == name; });
}

Bytes good_reply(const std::string& service, unsigned code) {
  for (const Method& each : kMethods) {
    if (each.service == kNone || kServices.at(static_cast<std::size_t>(each.service)) != service) continue;
    for (const Request& made : each.requests) {
      if (made.code == code) return Bytes().i32(0).append(wire(made.answer));
    }
  }
  return Bytes().i32(0);
}

Bytes request(const char* interface, const Bytes& arguments) {
  const Bytes head = Bytes().raw({0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0x54, 0x53, 0x59, 0x53});
  return Bytes(head).utf16(interface).append(arguments);
}

}  // namespace orvel::test
