// The delegate service: who the device is and whose, its secure settings, and what is broadcast on it.
#include <string>

#include "sim/Intent.h"
#include "sim/Receivers.h"
#include "sim/services/Services.h"

namespace orvel::sim {
namespace {

// The strings of the device-information record before and after the device type.
constexpr std::size_t kInfoBeforeType = 3;
constexpr std::size_t kInfoStrings = 9;

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

// Empty when the device is not registered, which has two spellings.
std::string accountOf(const Json& section) {
  const std::string id = section.at("customerId");
  return id == "<unknown>" ? "" : id;
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
    if (const std::string account = accountOf(is); account != accountOf(was)) {
      broadcast(std::string("com.quarlo.hux.sso.action.account.") + (account.empty() ? "removed" : "added"));
    }
    if (const Json& connected = is.at("maroConnected"); connected != was.at("maroConnected")) {
      broadcast("com.quarlo.speech.CONNECTIVITY_ACTION",
                {{"key", "com.quarlo.speech.EXTRA_CONNECTIVITY"}, {"type", "int"}, {"value", connected ? 1 : 0}});
    }
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
    const auto tell = [&](const std::string& key, const Json& value) {
      m_receivers.notify(kSettingChanged, {{"key", key}, {"value", value}}, [&](const Call& registration) {
        return registration.code == kRegisterForSettings && registration.arguments.at("key") == key;
      });
    };
    for (const auto& [key, value] : is.items()) {
      if (was.value(key, Json()) != value) tell(key, value);
    }
    for (const auto& [key, value] : was.items()) {
      if (!is.contains(key)) tell(key, "");
    }
  }

  Receivers m_receivers{type(), host()};
};

}  // namespace

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
      },
      {
          {14, "getDeviceInfo", {}, handledBy<Self, &Self::getDeviceInfo>, writeDeviceInfo},
          {15, "getSecureSetting", {{"key", readText}}, handledBy<Self, &Self::getSecureSetting>, writeText},
          {17, "getPFM", {}, handledBy<Self, &Self::getMarketplace>, writeText},
          {18, "getCOR", {}, handledBy<Self, &Self::getCountry>, writeText},
          {kRegisterForBroadcast,
           "registerForBroadcastWithDataTypeOrScheme",
           {{"action", readText}, {"types", readTexts}, {"schemes", readTexts}, {"receiver", readEndpoint}},
           handledBy<Self, &Self::registerForBroadcast>,
           writeNothing},
          {32, "getDirectedId", {}, handledBy<Self, &Self::getCustomerId>, writeText},
          {33, "getDeviceName", {}, handledBy<Self, &Self::getName>, writeText},
          {kRegisterForSettings,
           "registerForSecureSettings",
           {{"key", readText}, {"receiver", readEndpoint}},
           handledBy<Self, &Self::registerForSettings>,
           writeNothing},
          {42, "getDSNV2", {}, handledBy<Self, &Self::getSerialNumber>, writeText},
      },
      makeService<Self>,
  };
  return type;
}

}  // namespace orvel::sim
