// The one shape of a round trip, for all proxies.
#pragma once

#include <optional>
#include <type_traits>

#include "binder/Binder.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

// Sends transaction `code` of the interface `descriptor` and returns what `read` makes of the reply, which is null when
// the call failed or was answered with an exception. Empty, with nothing sent and nothing logged, when the service is
// not bound. Threads: any, one at a time.
template <typename Read>
auto transact(Binder& binder, const char* descriptor, unsigned int code, const RequestWriter& write, Read read)
    -> std::optional<std::invoke_result_t<Read, vesk_buffer*>> {
  const std::optional<Binder::Reply> reply = binder.call_if_bound(descriptor, code, write);
  if (!reply) return std::nullopt;
  return read(reply->get());
}

// The reader of a reply that carries nothing: whether one came.
inline bool replied(vesk_buffer* reply) {
  return reply != nullptr;
}

}  // namespace orvel::service_apis
