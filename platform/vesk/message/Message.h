// What stands behind the opaque messages of the C interface, and what a runtime adds to the functions on them.
#pragma once

#include <memory>
#include <vector>

#include "vesk/message/Parcel.h"
#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

namespace vesk {

// One reference to an endpoint of this process, from endpoint_acquire to endpoint_release. All copies together are that
// one reference; the thread that drops the last copy releases it. Never dropped while a runtime holds a lock: that
// calls out.
using EndpointRef = std::shared_ptr<vesk_endpoint>;

// One counted reference to an endpoint of another process. On the thread that serves.
using RemoteRef = std::shared_ptr<vesk_remote>;

// Whether an endpoint can be called and counted: all four functions are there.
inline bool is_complete(const vesk_endpoint& endpoint) {
  const vesk_endpoint_fn* const fn = endpoint.fn;
  return fn != nullptr && fn->endpoint_call != nullptr && fn->endpoint_call_oneway != nullptr &&
         fn->endpoint_acquire != nullptr && fn->endpoint_release != nullptr;
}

// What a runtime adds to the functions on messages. Any thread.
class MessageHooks {
 public:
  virtual ~MessageHooks() = default;

  // A new reference to `endpoint`, for a payload.
  virtual EndpointRef hold(vesk_endpoint* endpoint) = 0;

  // A function begins; it fails with the error that this returns, unless that is 0. It has ended when end() is called.
  virtual int begin(const char* /*function*/) { return 0; }
  virtual void end() {}
  // A function was given null for `what`, which it answers with an error.
  virtual void got_null(const char* /*function*/, const char* /*what*/) {}
  // So many were allocated, or freed where the number is negative.
  virtual void count_payloads(int /*change*/) {}
  virtual void count_buffers(int /*change*/) {}
};

// Each runtime defines it. It works from before main to the end of the process.
MessageHooks& message_hooks();

}  // namespace vesk

struct vesk_payload {
  vesk::Parcel parcel = {};
  std::vector<vesk::EndpointRef> endpoints = {};  // in the order of their marks in the parcel
};

struct vesk_buffer {
  vesk::Parcel parcel = {};
  std::vector<vesk::RemoteRef> remotes = {};  // in the order of the marks
};
