// The connectivity manager: notices of the device's default network.
#pragma once

#include <functional>

#include "binder/Binder.h"
#include "services/NetworkCallbackEndpoint.h"

namespace orvel::service_apis {

// Deliberately, a registration is not made again after the service died: whoever wants to go on hearing registers
// again. Threads: any, one at a time.
class IAndroidConnectivityManager {
 public:
  // Blocks until the service is bound or given up. `runtime` is borrowed.
  explicit IAndroidConnectivityManager(void* runtime);

  // Registers `callback`, in place of an earlier one. True unless the service is not bound, even when the call failed.
  bool registerDefaultNetworkCallback(const std::function<void(bool)>& callback);

  // Asks for no more notices. False only when the service is not bound; without a registration nothing is sent.
  bool unregisterNetworkCallback();

 private:
  Binder m_binder;
  vesk::EndpointPtr<NetworkCallbackEndpoint> m_network_callback;  // null until registered
};

}  // namespace orvel::service_apis
