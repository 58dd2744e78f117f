// The one shape of a round trip, for all proxies.
#pragma once

#include <optional>
#include <type_traits>

#include "binder/Binder.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

// Sends transaction `code` of the interface `descriptor` and gives its reply to `read`, which gets a null buffer when
// the call failed or was answered with an exception. Empty, and nothing sent, when the service is not bound. `only` as
// for Binder::call. Threads: any, one at a time.
template <typename Read>
auto transact(Binder& binder, const char* descriptor, unsigned int code, const RequestWriter& write, Read read,
              Connection only = kNoConnection) -> std::optional<std::invoke_result_t<Read, vesk_buffer*>> {
  if (!binder.good()) return std::nullopt;
  const ReplyScope reply(binder);  // done() on every way out
  return read(binder.call(descriptor, code, write, only));
}

// Makes the request one that cannot be sent, because a record of it could not be written whole.
inline void spoil(vesk_payload* request) {
  vesk_write_utf16_cstring(request, nullptr);
}

// The reader of a reply that carries nothing: whether one came.
inline bool replied(vesk_buffer* reply) {
  return reply != nullptr;
}

}  // namespace orvel::service_apis
