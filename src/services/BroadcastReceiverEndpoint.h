// The receiver of the broadcasts that match one filter.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "binder/IpcEndpoint.h"
#include "orvel/Bundle.h"

namespace orvel::service_apis {

using BroadcastCallback = std::function<void(const std::string& action, const std::string& data, const Bundle& extras)>;

// The delegate service calls it one-way. The callback gets three members of the intent; the others are dropped.
// Run-loop thread.
class BroadcastReceiverEndpoint : public vesk::IpcEndpoint {
 public:
  // An empty callback throws when a broadcast arrives.
  explicit BroadcastReceiverEndpoint(BroadcastCallback callback) : m_callback(std::move(callback)) {}

  int call_oneway(void* cookie, unsigned int code, vesk_identity* identity, vesk_buffer* in);

 private:
  BroadcastCallback m_callback;
};

}  // namespace orvel::service_apis
