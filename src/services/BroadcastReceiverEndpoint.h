// The receiver of the broadcasts that match one filter.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "binder/IpcEndpoint.h"
#include "orvel/Bundle.h"
#include "orvel/OrvelIntent.h"

namespace orvel::service_apis {

using BroadcastCallback = std::function<void(const std::string& action, const std::string& data, const Bundle& extras)>;

using IntentCallback = std::function<void(const OrvelIntent&)>;

// The delegate service calls it one-way. Run-loop thread.
class BroadcastReceiverEndpoint : public vesk::IpcEndpoint {
 public:
  // The callback gets three members of the intent; the others are dropped. An empty one throws when a broadcast
  // arrives.
  explicit BroadcastReceiverEndpoint(BroadcastCallback callback) : m_callback(std::move(callback)) {}

  // The callback gets the whole intent, unless it is empty; then `otherwise` gets its three members.
  BroadcastReceiverEndpoint(IntentCallback callback, BroadcastCallback otherwise)
      : m_callback(std::move(otherwise)), m_intent_callback(std::move(callback)) {}

  int call_oneway(void* cookie, unsigned int code, vesk_identity* identity, vesk_buffer* in);

 private:
  BroadcastCallback m_callback;
  IntentCallback m_intent_callback;
};

}  // namespace orvel::service_apis
