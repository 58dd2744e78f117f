// The connectivity manager: whether the default network is there.
#include "device/Receivers.h"
#include "device/ServiceNames.h"
#include "device/services/Services.h"

namespace orvel::sim {
namespace {

constexpr char kNetworkCallback[] = "com.quarlo.orveldelegate.androidconnectivitymanager.INetworkCallback";
const CallbackMethod kAvailable = {1, "networkAvailable", kNetworkCallback, /*answered=*/false, writeNothing};
const CallbackMethod kLost = {6, "networkLost", kNetworkCallback, /*answered=*/false, writeNothing};

class ConnectivityService : public Service {
 public:
  using Service::Service;

  Json registerCallback(const Call& call) {
    m_callbacks.add(call);
    return {};
  }

  Json unregisterCallback(const Call& call) {
    m_callbacks.remove(call.endpoints.front().get());
    return {};
  }

 private:
  Json registrations() const override { return m_callbacks.list(); }

  void changed(const Difference& difference) override {
    if (!difference.isOf("connectivity", "networkConnected")) return;
    m_callbacks.notify(difference.is ? kAvailable : kLost, Json::object(), [](const Call&) { return true; });
  }

  Receivers m_callbacks{type(), host()};
};

}  // namespace

const ServiceType& connectivityService() {
  using Self = ConnectivityService;
  static const ServiceType type = {
      "connectivity",
      kConnectivityName,
      "com.quarlo.orveldelegate.androidconnectivitymanager.IAndroidConnectivityManager",
      "the default network",
      {
          {"networkConnected", Shape::flag(), true, "whether the default network is there"},
      },
      {
          {4,
           "registerDefaultNetworkCallback",
           {{"callback", readEndpoint}},
           handledBy<&Self::registerCallback>,
           writeNothing},
          {5,
           "unregisterNetworkCallback",
           {{"callback", readEndpoint}},
           handledBy<&Self::unregisterCallback>,
           writeNothing},
      },
      makeService<Self>,
      {&kAvailable, &kLost},
  };
  return type;
}

}  // namespace orvel::sim
