// The delegate service: who the device is and whose, its secure settings, what is broadcast on it, and the way to its
// packages.
#include <algorithm>
#include <string>
#include <vector>

#include "device/Acts.h"
#include "device/Intent.h"
#include "device/Receivers.h"
#include "device/ServiceNames.h"
#include "device/services/DefaultContent.h"
#include "device/services/PackageInfo.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

// The strings of the device-information record before and after the device type.
constexpr std::size_t kInfoBeforeType = 3;
constexpr std::size_t kInfoStrings = 9;
constexpr std::int64_t kMostFeatures = 1000;
// The platform's flag of queries that want an application's meta-data too.
constexpr std::int64_t kGetMetaData = 0x80;

// A presence marker, then ten strings of which the fourth is the device type.
void writeDeviceInfo(vesk_payload* reply, const Json& info) {
  vesk_write_i32(reply, 1);
  for (const Json& text : info) writeText(reply, text);
}

enum Code : unsigned { kRegisterForBroadcast = 28, kRegisterForSettings = 34 };

void writeSetting(vesk_payload* payload, const Json& setting) {
  writeText(payload, setting.at("key"));
  writeText(payload, setting.at("value"));
}

const CallbackMethod kSettingChanged = {1, "settingChanged", "com.quarlo.orveldelegate.ISettingsReceiver",
                                        /*answered=*/true, writeSetting};
const CallbackMethod kBroadcast = {1, "broadcast", "com.quarlo.orveldelegate.IBroadcastReceiver",
                                   /*answered=*/false, writeIntent};

void expectText(const Call& call, const char* argument) {
  const Json& text = call.arguments.at(argument);
  if (text.is_null() || text.get_ref<const std::string&>().empty()) {
    throw RemoteException(kIllegalArgumentException, call.method->name + ": the " + argument + " is empty");
  }
}

bool lists(const Json& texts, const Json& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// The intent of the call, which must say something of whom it is for.
const Json& expectIntent(const Call& call) {
  const Json& intent = call.arguments.at("intent");
  if (intent.is_null() || (textOf(intent, "action").empty() && packageOf(intent).empty())) {
    throw RemoteException(kIllegalArgumentException,
                          call.method->name + ": the intent has no action, no package and no component");
  }
  return intent;
}

class DelegateService : public Service {
 public:
  using Service::Service;

  Json getDeviceInfo(const Call&) {
    Json info = section().at("info");
    info.get_ref<Json::array_t&>().resize(kInfoStrings, "");
    info.insert(info.begin() + kInfoBeforeType, section().at("type"));
    return info;
  }

  // An unset setting is a null string.
  Json getSecureSetting(const Call& call) {
    expectText(call, "key");
    return section().at("settings").value(call.arguments.at("key").get<std::string>(), Json());
  }

  Json registerForSettings(const Call& call) {
    expectText(call, "key");
    m_receivers.add(call);
    return {};
  }

  Json registerForBroadcast(const Call& call) {
    expectText(call, "action");
    m_receivers.add(call);
    return {};
  }

  // To every client that registered for it. Which packages those belong to and what they are permitted, the device does
  // not know.
  Json sendBroadcast(const Call& call) {
    const Json& intent = expectIntent(call);
    if (textOf(intent, "action").empty()) {
      throw RemoteException(kIllegalArgumentException, call.method->name + ": the intent has no action");
    }
    event(intent);
    return {};
  }

  // What cannot be started is not told.
  Json startActivity(const Call& call) { return act("openPackage", call); }
  Json startService(const Call& call) { return act("servePackage", call, {{"importance", kService}}); }
  Json startForegroundService(const Call& call) {
    return act("servePackage", call, {{"importance", kForegroundService}});
  }

  Json getApplicationInfo(const Call& call) { return applicationInfo(call, installed(call)); }

  Json getPackageInfo(const Call& call) {
    const Json& package = installed(call);
    if (package.is_null()) return {};
    Json info = {{"package", call.arguments.at("package")}};
    for (const char* key : {"versionCode", "versionName", "firstInstallMs", "lastUpdateMs"})
      info[key] = package.at(key);
    info["application"] = applicationInfo(call, package);
    return info;
  }

  // A null string where there is none.
  Json getRawResource(const Call& call) {
    const Json& package = installed(call);
    return package.is_null() ? Json() : package.at("resources").value(call.arguments.at("id").dump(), Json());
  }

  Json hasFeature(const Call& call) {
    expectText(call, "feature");
    return lists(section().at("features"), call.arguments.at("feature"));
  }

  Json getPackagesOfUid(const Call& call) {
    Json names = Json::array();
    for (const auto& [name, package] : packages().items()) {
      if (package.at("uid") == call.arguments.at("uid")) names.push_back(name);
    }
    return names;
  }

  Json queryReceivers(const Call& call) {
    expectText(call, "action");
    Json components = Json::array();
    for (const auto& [name, package] : packages().items()) {
      for (const Json& receiver : package.at("receivers")) {
        if (!lists(receiver.at("actions"), call.arguments.at("action"))) continue;
        components.push_back({{"package", name}, {"class", receiver.at("class")}});
      }
    }
    return components;
  }

  // Absent where there is nothing to launch.
  Json getLaunchIntent(const Call& call) {
    const Json& package = installed(call);
    if (package.is_null() || textOf(package, "launchActivity").empty()) return {};
    const Json& name = call.arguments.at("package");
    return {{"action", "android.intent.action.MAIN"},
            {"package", name},
            {"component", {{"package", name}, {"class", package.at("launchActivity")}}}};
  }

 private:
  // What clients are told of a change.
  void changed(const Difference& difference) override {
    const Json& is = difference.is;
    if (difference.isOf("delegate", "settings")) {
      announceSetting(difference.key, is.is_null() ? Json("") : is);
    } else if (difference.isOf("delegate", "name")) {
      broadcast("com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed",
                {{"key", "com.quarlo.hux.sso.property.devicename"}, {"type", "string"}, {"value", is}});
    } else if (difference.isOf("delegate", "customerId")) {
      const std::string account = accountOf(is);
      if (account == accountOf(difference.was)) return;
      broadcast(std::string("com.quarlo.hux.sso.action.account.") + (account.empty() ? "removed" : "added"));
    } else if (difference.isOf("delegate", "maroConnected")) {
      broadcast("com.quarlo.speech.CONNECTIVITY_ACTION",
                {{"key", "com.quarlo.speech.EXTRA_CONNECTIVITY"}, {"type", "int"}, {"value", is ? 1 : 0}});
    } else if (difference.isOf("packages", "packages")) {
      for (const Json& intent : packageBroadcasts(difference.key, difference.was, is)) event(intent);
    } else if (difference.isOf("power", "screenOn")) {
      broadcast(std::string("android.intent.action.SCREEN_") + (is ? "ON" : "OFF"));
    }
  }

  Json registrations() const override { return m_receivers.list(); }

  // An intent for the clients that registered for it.
  Json event(const Json& intent) override {
    const auto matches = [&](const Call& registration) {
      const Json& filter = registration.arguments;
      return registration.code == kRegisterForBroadcast &&
             matchesIntent(filter.at("action"), filter.at("types"), filter.at("schemes"), intent);
    };
    return {{"receivers", m_receivers.notify(kBroadcast, intent, matches)}};
  }

  void broadcast(const std::string& action, const Json& extra = {}) {
    Json intent = {{"action", action}};
    if (!extra.is_null()) intent["extras"].push_back(extra);
    event(intent);
  }

  void announceSetting(const std::string& key, const Json& value) {
    m_receivers.notify(kSettingChanged, {{"key", key}, {"value", value}}, [&](const Call& registration) {
      return registration.code == kRegisterForSettings && registration.arguments.at("key") == key;
    });
  }

  Json act(const char* verb, const Call& call, const Json& values = Json::object()) {
    if (const std::string package = packageOf(expectIntent(call)); !package.empty()) {
      host().change(makeAct(verb, package, values));
    }
    return {};
  }

  const Json& packages() { return host().scenario().at("packages").at("packages"); }

  // The package that the call asks about; null when it is not installed.
  const Json& installed(const Call& call) {
    static const Json none;
    expectText(call, "package");
    const auto found = packages().find(call.arguments.at("package").get_ref<const std::string&>());
    return found == packages().end() ? none : *found;
  }

  static Json applicationInfo(const Call& call, const Json& package) {
    if (package.is_null()) return {};
    Json info = {{"package", call.arguments.at("package")}};
    const bool wanted = (call.arguments.at("flags").get<std::int64_t>() & kGetMetaData) != 0;
    if (wanted) info["metaData"] = package.at("metaData");
    return info;
  }

  Receivers m_receivers{type(), host()};
};

std::vector<Field> delegateFields() {
  return {
      {"name", Shape::text(), "Kitchen Display", "the name that the owner gave to the device"},
      {"serialNumber", Shape::text(), "OQ24-0713-5521", "the serial number"},
      {"type", Shape::text(), "QDT-DISPLAY-8", "the device type identifier"},
      {"customerId", Shape::text(), "quarlo.account.7Q2M4X",
       "the account's directed identifier; empty when unregistered"},
      {"country", Shape::text(), "DE", "the owner's country of residence"},
      {"marketplace", Shape::text(), "QMP-DE-01", "the owner's preferred marketplace"},
      {"info", Shape::list(Shape::text(), kInfoStrings), Json::array({"orvel", "alder", "6.2.4"}),
       "the strings of the device information beside the type"},
      {"settings", Shape::map(Shape::text()),
       Json::object(
           {{"device_provisioned", "1"}, {"location_mode", "0"}, {"screen_brightness", "128"}, {"volume_alarm", "5"}}),
       "the secure settings"},
      {"maroConnected", Shape::flag(), true, "whether the assistant is connected"},
      {"features", Shape::list(Shape::text(), kMostFeatures), defaultFeatures(), "the features of the system"},
  };
}

std::vector<Method> delegateMethods() {
  using Self = DelegateService;
  return {
      {14, "getDeviceInfo", {}, handledBy<&Self::getDeviceInfo>, writeDeviceInfo},
      {15, "getSecureSetting", {{"key", readText}}, handledBy<&Self::getSecureSetting>, writeText},
      getter(17, "getPFM", "marketplace", writeText),
      getter(18, "getCOR", "country", writeText),
      {21, "getPackageNamesForUid", {{"uid", readInt32}}, handledBy<&Self::getPackagesOfUid>, writeTexts},
      {26, "checkSystemFeature", {{"feature", readText}}, handledBy<&Self::hasFeature>, writeFlag},
      {27, "sendBroadcast", {{"intent", readIntent}}, handledBy<&Self::sendBroadcast>, writeNothing},
      {kRegisterForBroadcast,
       "registerForBroadcastWithDataTypeOrScheme",
       {{"action", readText}, {"types", readTexts}, {"schemes", readTexts}, {"receiver", readEndpoint}},
       handledBy<&Self::registerForBroadcast>,
       writeNothing},
      {29, "startService", {{"intent", readIntent}}, handledBy<&Self::startService>, writeNothing},
      {30, "startForegroundService", {{"intent", readIntent}}, handledBy<&Self::startForegroundService>, writeNothing},
      getter(32, "getDirectedId", "customerId", writeText),
      getter(33, "getDeviceName", "name", writeText),
      {kRegisterForSettings,
       "registerForSecureSettings",
       {{"key", readText}, {"receiver", readEndpoint}},
       handledBy<&Self::registerForSettings>,
       writeNothing},
      {37, "startActivity", {{"intent", readIntent}}, handledBy<&Self::startActivity>, writeNothing},
      {38,
       "sendBroadcastWithPermission",
       {{"intent", readIntent}, {"permission", readText}},
       handledBy<&Self::sendBroadcast>,
       writeNothing},
      getter(42, "getDSNV2", "serialNumber", writeText),
      {53,
       "getApplicationInfo",
       {{"package", readText}, {"flags", readInt64}},
       handledBy<&Self::getApplicationInfo>,
       writeApplicationInfo},
      {54,
       "getPackageInfo",
       {{"package", readText}, {"flags", readInt64}},
       handledBy<&Self::getPackageInfo>,
       writePackageInfo},
      {55,
       "getRawResourceAsString",
       {{"package", readText}, {"id", readInt32}},
       handledBy<&Self::getRawResource>,
       writeText},
      {59,
       "queryBroadcastReceivers",
       {{"action", readText}, {"flags", readInt64}},
       handledBy<&Self::queryReceivers>,
       writeResolveInfos},
      {60, "getLaunchIntentForPackage", {{"package", readText}}, handledBy<&Self::getLaunchIntent>, writeIntent},
  };
}

}  // namespace

std::string accountOf(const Json& customerId) {
  return customerId == "<unknown>" ? "" : customerId;
}

const ServiceType& delegateService() {
  static const ServiceType type = {
      "delegate",
      kDelegateName,
      "com.quarlo.orveldelegate.IDelegateService",
      "device identity, settings and broadcasts",
      delegateFields(),
      delegateMethods(),
      makeService<DelegateService>,
      {&kSettingChanged, &kBroadcast},
  };
  return type;
}

}  // namespace orvel::sim
