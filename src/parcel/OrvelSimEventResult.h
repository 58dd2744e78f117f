// The result of an event that was sent to the voice assistant.
#pragma once

#include <cstdint>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// The codes of the event service.
// NOLINTNEXTLINE(readability-identifier-naming): the name is the service's
enum OrvelSimEventResult_t : std::uint32_t {
  kSuccess = 0,
  kSuccessNoContent = 1,
  kMaroDisconnected = 2,
  kInternalError = 3,
  kTimeout = 4,
  kInvalidEvent = 5,
  kUnknownError = 6,
};

class OrvelSimEventResult {
 public:
  OrvelSimEventResult() = delete;

  // The result; kUnknownError also for a null buffer, an absent or cut result, and a code that is not listed above.
  static OrvelSimEventResult_t read(vesk_buffer* buffer);

  // True for every code but kSuccess, which callers rely on. The library never sends results: writes nothing.
  static bool write(vesk_payload* payload, OrvelSimEventResult_t result);
};

}  // namespace orvel::service_apis
