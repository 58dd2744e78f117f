// The connectivity manager: notices of the device's default network.
#pragma once

#include <functional>

#include "binder/Binder.h"
#include "services/NetworkCallbackEndpoint.h"

namespace orvel::service_apis {

// Deliberately, a registration is not made again after the service died: the caller registers again. Threads: any, one
// at a time.
class IAndroidConnectivityManager {
 public:
  // Blocks until the service is bound or given up. `runtime` is borrowed.
  explicit IAndroidConnectivityManager(void* runtime);

  // True, even when the call failed; false when the service is not bound. Registers `callback`, in place of an earlier
  // one.
  bool registerDefaultNetworkCallback(const std::function<void(bool)>& callback);

  // True, even when the call failed; false when the service is not bound. Asks the service to end its notices; without
  // a registration nothing is sent.
  bool unregisterNetworkCallback();

 private:
  Binder m_binder;
  vesk::EndpointPtr<NetworkCallbackEndpoint> m_network_callback;  // null until registered
};

}  // namespace orvel::service_apis
