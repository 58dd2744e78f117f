// The receiver of the directives of one namespace.
#pragma once

#include <functional>
#include <utility>

#include "binder/IpcEndpoint.h"
#include "parcel/OrvelSimDirective.h"

namespace orvel::service_apis {

using DirectiveCallback = std::function<void(const OrvelSimDirective&)>;

// The directive broker calls it one-way, with a directive and nothing in front of it. Run-loop thread.
class OrvelSimDirectiveCallbackEndpoint : public vesk::IpcEndpoint {
 public:
  // An empty callback throws when a directive arrives.
  explicit OrvelSimDirectiveCallbackEndpoint(DirectiveCallback callback) : m_callback(std::move(callback)) {}

  int call_oneway(void* cookie, unsigned int code, vesk_identity* identity, vesk_buffer* in);

 private:
  DirectiveCallback m_callback;
};

}  // namespace orvel::service_apis
