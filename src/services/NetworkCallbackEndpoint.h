// The receiver of notices of the device's default network.
#pragma once

#include <functional>
#include <utility>

#include "binder/IpcEndpoint.h"

namespace orvel::service_apis {

// The connectivity service calls it one-way. Run-loop thread.
class NetworkCallbackEndpoint : public vesk::IpcEndpoint {
 public:
  // `callback` gets true when a network is available and false when it is lost. An empty one throws when a notice
  // arrives.
  explicit NetworkCallbackEndpoint(std::function<void(bool)> callback) : m_callback(std::move(callback)) {}
  virtual ~NetworkCallbackEndpoint() = default;

  int call_oneway(void* cookie, unsigned int code, vesk_identity* identity, vesk_buffer* in);

 private:
  std::function<void(bool)> m_callback;
};

}  // namespace orvel::service_apis
