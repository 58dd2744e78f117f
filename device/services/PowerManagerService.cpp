// The power manager: the screen and what keeps the device awake.
#include "device/ServiceNames.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

// From this interface version on there is wakeUpDeviceCustom.
constexpr int kFirstVersionWithCustomWakeUp = 2;

class PowerManagerService : public Service {
 public:
  using Service::Service;

  Json wakeUpDevice(const Call&) {
    host().change({{"path", "/power/screenOn"}, {"value", true}});
    return {};
  }

  Json wakeUpDeviceCustom(const Call&) {
    if (section().at("interfaceVersion") < kFirstVersionWithCustomWakeUp) {
      throw RemoteException(kUnsupportedOperationException, "wakeUpDeviceCustom: not in this interface version");
    }
    return {};
  }
};

}  // namespace

const ServiceType& powerManagerService() {
  using Self = PowerManagerService;
  static const ServiceType type = {
      "power",
      kPowerManagerName,
      "com.quarlo.orveldelegate.powermanager.IPowerManagerService",
      "screen and wake locks",
      {
          {"screenOn", Shape::flag(), true, "whether the screen is on"},
          {"interfaceVersion", Shape::number(), 2,
           "the version of the interface; below 2 there are no partial wake locks"},
      },
      {
          getter(1, "isInteractive", "screenOn", writeFlag),
          {2, "wakeUpDevice", {}, handledBy<&Self::wakeUpDevice>, writeNothing},
          getter(3, "getVersion", "interfaceVersion", writeInt32),
          {4,
           "wakeUpDeviceCustom",
           {{"kind", readInt32}, {"milliseconds", readInt64}},
           handledBy<&Self::wakeUpDeviceCustom>,
           writeNothing},
      },
      makeService<Self>,
  };
  return type;
}

}  // namespace orvel::sim
