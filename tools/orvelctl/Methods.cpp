#include "Methods.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <regex>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Arguments.h"
#include "Commands.h"
#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

// What is kept of an argument until the call: an intent of `const OrvelIntent*`, a text of `const std::string&`.
template <typename Argument>
using Kept = std::remove_const_t<std::remove_pointer_t<std::decay_t<Argument>>>;

template <typename Parameter, typename Value>
decltype(auto) passed(Value& value) {
  if constexpr (std::is_pointer_v<std::decay_t<Parameter>>) {
    return static_cast<const Value*>(&value);
  } else {
    return (value);
  }
}

// Of a name that ends with "?", which may be left out.
Argument argumentOf(std::string name, const char* type) {
  const bool required = name.back() != '?';
  if (!required) name.pop_back();
  return {name, type, required};
}

template <typename Value>
void readMember(const Json& arguments, const Argument& argument, Value& value) {
  if (arguments.contains(argument.name)) {
    readArgument(arguments.at(argument.name), argument.name, value);
  } else if (argument.required) {
    throw CLI::ValidationError(argument.name, "is missing, a value of the type " + argument.type);
  }
}

std::vector<std::string> linesOf(const Json& result) {
  if (result.is_array()) return result.get<std::vector<std::string>>();
  return {result.is_string() ? result.get<std::string>() : asText(result)};
}

// Makes a call and prints what it gave.
void callAndShow(Session& session, const Method& method, const std::function<Json(Client&)>& call) {
  const auto result = session.ask(method.path(), method.service, call);
  if (!result) return;
  const bool empty = result->is_array() && result->empty();
  if (session.json() || !empty) session.print({{"method", method.path()}, {"result", *result}}, linesOf(*result));
}

// The same of one that gives whether the service has taken it.
void orderAndShow(Session& session, const Method& method, const std::function<Json(Client&)>& call) {
  const auto order = [&](Client& client) { return call(client).get<bool>(); };
  if (session.order(method.path(), method.service, order)) {
    session.print({{"method", method.path()}, {"result", true}}, "true");
  }
}

using Show = void (*)(Session&, const Method&, const std::function<Json(Client&)>&);
using ArgumentNames = std::initializer_list<const char*>;

// Adds what the signature says: types, reading and calling.
template <typename Result, typename... Parameters, std::size_t... Index>
Method bound(Method method, Show show, Result (Client::*function)(Parameters...), const ArgumentNames& names,
             std::index_sequence<Index...>) {
  method.result = typeName(static_cast<Result*>(nullptr));
  method.arguments = {argumentOf(names.begin()[Index], typeName(static_cast<Kept<Parameters>*>(nullptr)))...};
  method.call = [method, show, function](const Json& given) {
    const auto values = std::make_shared<std::tuple<Kept<Parameters>...>>();
    (readMember(given, method.arguments[Index], std::get<Index>(*values)), ...);
    return [=](Session& session) {
      show(session, method, [&](Client& client) -> Json {
        if constexpr (std::is_void_v<Result>) {
          (client.*function)(passed<Parameters>(std::get<Index>(*values))...);
          return nullptr;
        } else if constexpr (std::is_same_v<Result, std::optional<std::string>>) {
          const Result text = (client.*function)(passed<Parameters>(std::get<Index>(*values))...);
          return text ? Json(*text) : Json();
        } else {
          return (client.*function)(passed<Parameters>(std::get<Index>(*values))...);
        }
      });
    };
  };
  return method;
}

template <typename Result, typename... Parameters>
Method query(Method method, Result (Client::*function)(Parameters...), ArgumentNames names = {}) {
  return bound(std::move(method), callAndShow, function, names, std::index_sequence_for<Parameters...>());
}

template <typename... Parameters>
Method order(Method method, bool (Client::*function)(Parameters...), ArgumentNames names = {}) {
  return bound(std::move(method), orderAndShow, function, names, std::index_sequence_for<Parameters...>());
}

// A query that fills a list.
Method listing(Method method, bool (Client::*function)(Names&)) {
  method.result = typeName(static_cast<Names*>(nullptr));
  method.call = [method, function](const Json&) {
    return [=](Session& session) { callAndShow(session, method, namesBy(function)); };
  };
  return method;
}

Method processState(Method method) {
  method.arguments = {{"packageName", "text"}};
  method.result = "object of found, importance and isFocused";
  method.call = [method](const Json& given) {
    std::string package;
    readMember(given, method.arguments[0], package);
    return [=](Session& session) {
      callAndShow(session, method, [&](Client& client) -> Json {
        bool found = false;
        bool focused = false;
        int importance = 0;
        client.getAppProcessState(package, found, importance, focused);
        return {{"found", found}, {"importance", importance}, {"isFocused", focused}};
      });
    };
  };
  return method;
}

// The overload is the one of the default's type.
Method metaData(const Method& named) {
  const ArgumentNames names = {"packageName", "flags?", "key", "defaultValue"};
  using Text = std::string (Client::*)(const std::string&, long long, const std::string&, std::string);
  using Number = int (Client::*)(const std::string&, long long, const std::string&, int);
  const Method text = query(named, static_cast<Text>(&Client::getApplicationInfoMetaData), names);
  const Method number = query(named, static_cast<Number>(&Client::getApplicationInfoMetaData), names);
  Method both = text;
  both.arguments.back().type = "text, or integer of 32 bits";
  both.result = "of the type of defaultValue";
  both.call = [text, number](const Json& given) {
    const bool is_number = given.contains("defaultValue") && given.at("defaultValue").is_number();
    return (is_number ? number : text).call(given);
  };
  return both;
}

Method event(Method method) {
  method.arguments = {{"event", "event"}};
  method.result = "object of result and retryable, when it is told";
  method.call = [method](const Json& given) {
    const auto value = std::make_shared<AssistantEvent>();
    readMember(given, method.arguments[0], *value);
    return [value](Session& session) { sendEvent(session, *value); };
  };
  return method;
}

// One that tells by callback, or belongs to a link.
Method told(const char* name, std::optional<Service> service, const char* about, const char* command) {
  return {name, service, about, {}, "by callback", "", command};
}

constexpr Service kDelegate = Service::kDelegate;
constexpr Service kPower = Service::kPower;

Method named(const char* name, std::optional<Service> service, const char* about, const char* example,
             const char* command) {
  return {name, service, about, {}, "", example, command};
}

std::vector<Method> identityMethods() {
  return {
      query(named("getDeviceName", kDelegate, "The name that the owner gave to the device", "", "get name"),
            &Client::getDeviceName),
      query(named("getDeviceSerialNumber", kDelegate, "The serial number", "", "get serial-number"),
            &Client::getDeviceSerialNumber),
      query(named("getDeviceType", kDelegate, "The device type identifier", "", "get type"), &Client::getDeviceType),
      query(named("getCustomerDirectedID", kDelegate, "The account that owns the device", "", "get customer-id"),
            &Client::getCustomerDirectedID),
      query(named("getCountryOfResidence", kDelegate, "The owner's country", "", "get country"),
            &Client::getCountryOfResidence),
      query(named("getPreferredMarketPlace", kDelegate, "The owner's marketplace", "", "get marketplace"),
            &Client::getPreferredMarketPlace),
      query(named("isDeviceRegistered", kDelegate, "Whether an account owns the device", "", "get registered"),
            &Client::isDeviceRegistered),
      query(named("getSecureSettingInt", kDelegate, "A secure setting that is a number",
                  R"({"key": "volume_alarm", "defaultValue": 3})", "setting volume_alarm --default 3"),
            &Client::getSecureSettingInt, {"key", "defaultValue?"}),
      query(named("getSecureSetting", kDelegate, "A secure setting as it is", R"({"key": "volume_alarm"})",
                  "setting volume_alarm --text"),
            &Client::getSecureSetting, {"key"}),
  };
}

std::vector<Method> intentMethods() {
  constexpr char kBroadcast[] = R"({"intent": {"action": "com.example.HELLO", "extras": {"age": 7}}})";
  constexpr char kPermitted[] = R"({"intent": {"action": "com.example.HELLO"}, "permission": "com.example.P"})";
  constexpr char kComponent[] = R"({"intent": {"component": "com.quarlo.music/.Main"}})";
  return {
      order(named("broadcastIntent", kDelegate, "Broadcasts an intent", kBroadcast,
                  "am broadcast -a com.example.HELLO --ei age 7"),
            &Client::broadcastIntent, {"intent"}),
      order(named("broadcastIntentWithPermission", kDelegate, "The same to receivers that hold the permission",
                  kPermitted, "am broadcast -a com.example.HELLO --receiver-permission com.example.P"),
            &Client::broadcastIntentWithPermission, {"intent", "permission"}),
      order(named("broadcastIntentWithIntKey", kDelegate, "Broadcasts an action to one component, with one extra",
                  R"({"action": "A", "packageName": "a", "className": "a.B", "key": "k", "value": 1})",
                  "am broadcast-int A a/.B k 1"),
            &Client::broadcastIntentWithIntKey, {"action", "packageName", "className", "key", "value"}),
      order(named("startActivity", kDelegate, "Starts an activity", kComponent, "am start -n com.quarlo.music/.Main"),
            &Client::startActivity, {"intent"}),
      order(named("startService", kDelegate, "Starts a service", kComponent,
                  "am start-service -n com.quarlo.music/.Main"),
            &Client::startService, {"intent"}),
      order(named("startForegroundService", kDelegate, "Starts a service that stays in the foreground", kComponent,
                  "am start-foreground-service -n com.quarlo.music/.Main"),
            &Client::startForegroundService, {"intent"}),
      order(named("launchApplicationWithPackageName", kDelegate, "Starts the main activity of a package",
                  R"({"packageName": "com.quarlo.music"})", "am launch com.quarlo.music"),
            &Client::launchApplicationWithPackageName, {"packageName"}),
  };
}

std::vector<Method> packageMethods() {
  constexpr char kPackage[] = R"({"packageName": "com.quarlo.home"})";
  return {
      metaData(named(
          "getApplicationInfoMetaData", kDelegate, "An entry of an application's metadata (flags: 128)",
          R"({"packageName": "com.quarlo.home", "flags": 128, "key": "com.quarlo.home.cards", "defaultValue": 0})",
          "pm meta-data com.quarlo.home com.quarlo.home.cards --int")),
      query(named("getPackageVersionCode", kDelegate, "The version of a package, a number", kPackage,
                  "pm version-code com.quarlo.home"),
            &Client::getPackageVersionCode, {"packageName", "flags?"}),
      query(named("getPackageVersionName", kDelegate, "The version of a package, as people read it", kPackage,
                  "pm version-name com.quarlo.home"),
            &Client::getPackageVersionName, {"packageName", "flags?"}),
      query(named("getRawResourceAsString", kDelegate, "A raw resource of a package",
                  R"({"packageName": "com.quarlo.home", "resourceId": 7})", "pm resource com.quarlo.home 7"),
            &Client::getRawResourceAsString, {"packageName", "resourceId"}),
      query(named("hasSystemFeature", kDelegate, "Whether the device has a feature",
                  R"({"feature": "android.hardware.wifi"})", "pm has-feature android.hardware.wifi"),
            &Client::hasSystemFeature, {"feature"}),
      query(named("getPackageNamesForUid", kDelegate, "The packages that share a user id", R"({"uid": 1000})",
                  "pm list packages --uid 1000"),
            &Client::getPackageNamesForUid, {"uid"}),
      query(named("getBroadcastReceiverPackageNames", kDelegate, "The packages that a broadcast would reach",
                  R"({"action": "com.example.HELLO"})", "pm query-receivers com.example.HELLO"),
            &Client::getBroadcastReceiverPackageNames, {"action", "flags?"}),
      listing(named("getInstalledPackageNames", Service::kPackages, "The installed packages", "", "pm list packages"),
              &Client::getInstalledPackageNames),
      listing(named("getForegroundPackages", Service::kActivity, "The packages in the foreground", "", "am foreground"),
              &Client::getForegroundPackages),
      processState(named("getAppProcessState", Service::kActivity, "How the process of a package stands", kPackage,
                         "am process-state com.quarlo.home")),
  };
}

std::vector<Method> otherMethods() {
  return {
      query(named("isScreenOn", kPower, "Whether the screen is on", "", "screen"), &Client::isScreenOn),
      order(named("acquirePartialWakeLock", kPower, "Keeps the processor awake for 500 ms", "", "wake-lock partial"),
            &Client::acquirePartialWakeLock),
      order(named("acquireFullWakeLock", kPower, "Wakes the device and its screen", "", "wake-lock full"),
            &Client::acquireFullWakeLock),
      event(named("send", Service::kEvents, "Sends the voice assistant an event",
                  R"({"event": {"namespace": "Speaker", "name": "VolumeChanged", "payload": "7"}})",
                  "event Speaker VolumeChanged --payload 7")),
      query(named("recordTarselMetricEvent", Service::kMetrics, "Records a metric event",
                  R"({"event": {"header1": "App", "header2": "Start", "fields": {"count": 3}}})",
                  "metric App Start --long count 3"),
            &Client::recordTarselMetricEvent, {"event"}),
      query(named("isMaroConnected", kNoService, "Whether the voice assistant is connected", "", "assistant"),
            &Client::isMaroConnected),
      query(named("isNetworkConnected", kNoService, "Always false", "", "network"), &Client::isNetworkConnected),
  };
}

std::vector<Method> toldMethods() {
  const Service network = Service::kConnectivity;
  return {
      told("subscribeDeviceNameChange", kDelegate, "The device has a new name", "watch name"),
      told("subscribeDeviceRegistrationChange", kDelegate, "An account came or went", "watch registration"),
      told("subscribeMaroConnectivityChange", kDelegate, "The voice assistant came or went", "watch assistant"),
      told("subscribeScreenStateChange", kDelegate, "The screen went on or off", "watch screen"),
      told("subscribePackageAction", kDelegate, "A package came, went or changed", "watch package"),
      told("subscribeTimeSync", kDelegate, "The clock was set", "watch time"),
      told("subscribeSecureSetting", kDelegate, "A setting changed", "watch setting:volume_alarm"),
      told("subscribeSecureSettingIntChange", kDelegate, "The same of a number", "watch setting:volume_alarm"),
      told("subscribeBroadcast", kDelegate, "A broadcast of an action", "watch broadcast:com.example.HELLO"),
      told("subscribeDirective", Service::kCoordinator, "A directive of the assistant", "directive Speaker"),
      told("subscribeNetworkConnectivityChange", network, "The network came or went", "watch network"),
      told("unregisterForNetworkConnectivityChange", network, "Ends that", "watch network"),
      told("state", kNoService, "How the client stands with a service", "links"),
      told("subscribeLink", kNoService, "What becomes of a service", "watch screen"),
      told("waitFor", kNoService, "Waits for a service", "wait power=up"),
      told("rebind", kNoService, "Looks again for a service that was given up", "wait power=up"),
  };
}

std::vector<std::string> knownNames() {
  std::vector<std::string> names;
  for (const Method& method : methods()) names.insert(names.end(), {method.name, method.path()});
  return names;
}

}  // namespace

std::string Method::exampleLine() const {
  if (!call) return "orvelctl " + command;
  return "orvelctl call " + path() + (example.empty() ? "" : " '" + example + "'");
}

const std::vector<Method>& methods() {
  static const std::vector<Method> all = [] {
    std::vector<Method> table;
    for (auto* part : {identityMethods, intentMethods, packageMethods, otherMethods, toldMethods}) {
      for (Method& method : part()) table.push_back(std::move(method));
    }
    const auto place = [](const Method& method) {
      return method.service ? static_cast<std::size_t>(*method.service) : orvel::service_apis::kAllServices.size();
    };
    std::stable_sort(table.begin(), table.end(), [&](const Method& a, const Method& b) { return place(a) < place(b); });
    return table;
  }();
  return all;
}

const Method& methodCalled(const std::string& name) {
  // The older names of the same.
  const std::string newer = std::regex_replace(name, std::regex("(^|\\.)registerFor"), "$1subscribe");
  const std::string wanted = std::regex_replace(newer, std::regex("(^|\\.)sendEvent$"), "$1send");
  const auto is_called = [&](const Method& method) { return method.name == wanted || method.path() == wanted; };
  const auto found = std::find_if(methods().begin(), methods().end(), is_called);
  if (found != methods().end()) return *found;
  const std::string near = orvel::cli::didYouMean(name, knownNames());
  throw CLI::ValidationError(
      "method", "no method is called '" + name + "'" + (near.empty() ? "; orvelctl list shows them" : near));
}

}  // namespace orvelctl
