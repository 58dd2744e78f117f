// The one shape of a round trip, for all proxies.
#pragma once

#include <optional>
#include <type_traits>

#include "binder/Binder.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

// Sends transaction `code` of the interface `descriptor` and gives its reply to `read`, which gets a null buffer when
// the call failed or was answered with an exception. Empty, and nothing sent, when the service is not bound, or when `only`
// names a connection that is not the newest one any more. Threads: any, one at a time.
template <typename Read>
auto transact(Binder& binder, const char* descriptor, unsigned int code, const RequestWriter& write, Read read,
              Connection only = kNoConnection) -> std::optional<std::invoke_result_t<Read, vesk_buffer*>> {
  if (!binder.good()) return std::nullopt;
  const ReplyScope reply(binder);  // done() on every way out
  if (only == kNoConnection) return read(binder.call(descriptor, code, write));
  const std::optional<vesk_buffer*> answer = binder.call_on(only, descriptor, code, write);
  if (!answer) return std::nullopt;
  return read(*answer);
}

// The reader of a reply that carries nothing: whether one came.
inline bool replied(vesk_buffer* reply) {
  return reply != nullptr;
}

}  // namespace orvel::service_apis
