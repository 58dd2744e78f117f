// The delegate service: who the device is and whose, its secure settings, what is broadcast on it, and the way to its
// packages.
#include <algorithm>
#include <string>

#include "device/Acts.h"
#include "device/Intent.h"
#include "device/Receivers.h"
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

  Json getMarketplace(const Call&) { return section().at("marketplace"); }
  Json getCountry(const Call&) { return section().at("country"); }
  Json getCustomerId(const Call&) { return section().at("customerId"); }
  Json getName(const Call&) { return section().at("name"); }
  Json getSerialNumber(const Call&) { return section().at("serialNumber"); }

 private:
  // What the device tells of a change, whoever made it.
  void changed(const Json& before) override {
    const Json& was = before.at(type().id);
    const Json& is = section();
    settingsChanged(was.at("settings"), is.at("settings"));
    if (was.at("name") != is.at("name")) {
      broadcast("com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed",
                {{"key", "com.quarlo.hux.sso.property.devicename"}, {"type", "string"}, {"value", is.at("name")}});
    }
    if (const std::string account = accountOf(is.at("customerId")); account != accountOf(was.at("customerId"))) {
      broadcast(std::string("com.quarlo.hux.sso.action.account.") + (account.empty() ? "removed" : "added"));
    }
    if (const Json& connected = is.at("maroConnected"); connected != was.at("maroConnected")) {
      broadcast("com.quarlo.speech.CONNECTIVITY_ACTION",
                {{"key", "com.quarlo.speech.EXTRA_CONNECTIVITY"}, {"type", "int"}, {"value", connected ? 1 : 0}});
    }
    const auto tellPackage = [&](const std::string& name, const Json& then, const Json& now) {
      for (const Json& intent : packageBroadcasts(name, then, now)) event(intent);
    };
    const Json::json_pointer packages("/packages/packages");
    forEachDifference(before.at(packages), host().scenario().at(packages), tellPackage);
    const Json::json_pointer screen("/power/screenOn");
    if (const Json& on = host().scenario().at(screen); on != before.at(screen)) {
      broadcast(std::string("android.intent.action.SCREEN_") + (on ? "ON" : "OFF"));
    }
  }

  // An intent for whoever registered for it.
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

  void settingsChanged(const Json& was, const Json& is) {
    forEachDifference(was, is, [&](const std::string& key, const Json&, const Json& now) {
      const Json value = now.is_null() ? Json("") : now;
      m_receivers.notify(kSettingChanged, {{"key", key}, {"value", value}}, [&](const Call& registration) {
        return registration.code == kRegisterForSettings && registration.arguments.at("key") == key;
      });
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

}  // namespace

std::string accountOf(const Json& customerId) {
  return customerId == "<unknown>" ? "" : customerId;
}

const ServiceType& delegateService() {
  using Self = DelegateService;
  static const ServiceType type = {
      "delegate",
      "orvel_delegate",
      "com.quarlo.orveldelegate.IDelegateService",
      "device identity, settings and broadcasts",
      {
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
           Json::object({{"device_provisioned", "1"},
                         {"location_mode", "0"},
                         {"screen_brightness", "128"},
                         {"volume_alarm", "5"}}),
           "the secure settings"},
          {"maroConnected", Shape::flag(), true, "whether the assistant is connected"},
          {"features", Shape::list(Shape::text(), kMostFeatures), defaultFeatures(), "the features of the system"},
      },
      {
          {14, "getDeviceInfo", {}, handledBy<Self, &Self::getDeviceInfo>, writeDeviceInfo},
          {15, "getSecureSetting", {{"key", readText}}, handledBy<Self, &Self::getSecureSetting>, writeText},
          {17, "getPFM", {}, handledBy<Self, &Self::getMarketplace>, writeText},
          {18, "getCOR", {}, handledBy<Self, &Self::getCountry>, writeText},
          {21, "getPackageNamesForUid", {{"uid", readInt32}}, handledBy<Self, &Self::getPackagesOfUid>, writeTexts},
          {26, "checkSystemFeature", {{"feature", readText}}, handledBy<Self, &Self::hasFeature>, writeFlag},
          {27, "sendBroadcast", {{"intent", readIntent}}, handledBy<Self, &Self::sendBroadcast>, writeNothing},
          {kRegisterForBroadcast,
           "registerForBroadcastWithDataTypeOrScheme",
           {{"action", readText}, {"types", readTexts}, {"schemes", readTexts}, {"receiver", readEndpoint}},
           handledBy<Self, &Self::registerForBroadcast>,
           writeNothing},
          {29, "startService", {{"intent", readIntent}}, handledBy<Self, &Self::startService>, writeNothing},
          {30,
           "startForegroundService",
           {{"intent", readIntent}},
           handledBy<Self, &Self::startForegroundService>,
           writeNothing},
          {32, "getDirectedId", {}, handledBy<Self, &Self::getCustomerId>, writeText},
          {33, "getDeviceName", {}, handledBy<Self, &Self::getName>, writeText},
          {kRegisterForSettings,
           "registerForSecureSettings",
           {{"key", readText}, {"receiver", readEndpoint}},
           handledBy<Self, &Self::registerForSettings>,
           writeNothing},
          {37, "startActivity", {{"intent", readIntent}}, handledBy<Self, &Self::startActivity>, writeNothing},
          {38,
           "sendBroadcastWithPermission",
           {{"intent", readIntent}, {"permission", readText}},
           handledBy<Self, &Self::sendBroadcast>,
           writeNothing},
          {42, "getDSNV2", {}, handledBy<Self, &Self::getSerialNumber>, writeText},
          {53,
           "getApplicationInfo",
           {{"package", readText}, {"flags", readInt64}},
           handledBy<Self, &Self::getApplicationInfo>,
           writeApplicationInfo},
          {54,
           "getPackageInfo",
           {{"package", readText}, {"flags", readInt64}},
           handledBy<Self, &Self::getPackageInfo>,
           writePackageInfo},
          {55,
           "getRawResourceAsString",
           {{"package", readText}, {"id", readInt32}},
           handledBy<Self, &Self::getRawResource>,
           writeText},
          {59,
           "queryBroadcastReceivers",
           {{"action", readText}, {"flags", readInt64}},
           handledBy<Self, &Self::queryReceivers>,
           writeResolveInfos},
          {60,
           "getLaunchIntentForPackage",
           {{"package", readText}},
           handledBy<Self, &Self::getLaunchIntent>,
           writeIntent},
      },
      makeService<Self>,
      {&kSettingChanged, &kBroadcast},
  };
  return type;
}

}  // namespace orvel::sim
