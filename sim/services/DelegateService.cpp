// The delegate service: who the device is and whose, and its secure settings.
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
    const Json& key = call.arguments.at("key");
    if (key.is_null() || key.get_ref<const std::string&>().empty())
      throw RemoteException(kIllegalArgumentException, "getSecureSetting: the key is empty");
    return section().at("settings").value(key.get<std::string>(), Json());
  }

  Json getMarketplace(const Call&) { return section().at("marketplace"); }
  Json getCountry(const Call&) { return section().at("country"); }
  Json getCustomerId(const Call&) { return section().at("customerId"); }
  Json getName(const Call&) { return section().at("name"); }
  Json getSerialNumber(const Call&) { return section().at("serialNumber"); }
};

}  // namespace

const ServiceType& delegateService() {
  using Self = DelegateService;
  static const ServiceType type = {
      "delegate",
      "orvel_delegate",
      "com.quarlo.orveldelegate.IDelegateService",
      "device identity and settings",
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
      },
      {
          {14, "getDeviceInfo", {}, handledBy<Self, &Self::getDeviceInfo>, writeDeviceInfo},
          {15, "getSecureSetting", {{"key", readText}}, handledBy<Self, &Self::getSecureSetting>, writeText},
          {17, "getPFM", {}, handledBy<Self, &Self::getMarketplace>, writeText},
          {18, "getCOR", {}, handledBy<Self, &Self::getCountry>, writeText},
          {32, "getDirectedId", {}, handledBy<Self, &Self::getCustomerId>, writeText},
          {33, "getDeviceName", {}, handledBy<Self, &Self::getName>, writeText},
          {42, "getDSNV2", {}, handledBy<Self, &Self::getSerialNumber>, writeText},
      },
      makeService<Self>,
  };
  return type;
}

}  // namespace orvel::sim
