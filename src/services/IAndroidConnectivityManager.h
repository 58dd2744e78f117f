// The connectivity manager: notices of the device's default network.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "binder/Binder.h"
#include "services/NetworkCallbackEndpoint.h"

namespace orvel::service_apis {

// Deliberately, a registration is not made again after the service died: the caller registers again. Threads: any, one
// at a time.
class IAndroidConnectivityManager {
 public:
  static constexpr Service kService = Service::kConnectivity;

  // Blocks until the service is bound or given up, unless `bind` says otherwise. `runtime` is borrowed.
  explicit IAndroidConnectivityManager(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  // True, even when the call failed; false when the service is not bound. Registers `callback`, in place of an earlier
  // one; what the link holds for this service counts it from then on, until its end, the service's death, or
  // unregisterNetworkCallback(). `ends`, if there is one, is what ends it; then false when the call failed, too.
  bool registerDefaultNetworkCallback(const std::function<void(bool)>& callback,
                                      const std::shared_ptr<Callback>& ends = nullptr);

  // True, even when the call failed; false when the service is not bound. Asks the service to end its notices; without
  // a registration nothing is sent.
  bool unregisterNetworkCallback();

  Binder& binder() { return m_binder; }

 private:
  Binder m_binder;
  vesk::EndpointPtr<NetworkCallbackEndpoint> m_network_callback;  // null until registered
  std::uint64_t m_number = 0;                                     // of that registration
};

}  // namespace orvel::service_apis
