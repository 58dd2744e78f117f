// The receiver of the result of one event.
#pragma once

#include <functional>
#include <utility>

#include "binder/IpcEndpoint.h"
#include "parcel/OrvelSimEventResult.h"

namespace orvel::service_apis {

using EventStatusCallback = std::function<void(const OrvelSimEventResult_t&)>;

// The event service calls it one-way: once as a rule, possibly before it has answered to the event. Run-loop thread.
class OrvelSimEventStatusCallbackEndpoint : public vesk::IpcEndpoint {
 public:
  // An empty callback throws when a result arrives.
  explicit OrvelSimEventStatusCallbackEndpoint(EventStatusCallback callback) : m_callback(std::move(callback)) {}

  int call_oneway(void* cookie, unsigned int code, vesk_identity* identity, vesk_buffer* in);

 private:
  EventStatusCallback m_callback;
};

}  // namespace orvel::service_apis
