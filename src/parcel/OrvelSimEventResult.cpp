#include "parcel/OrvelSimEventResult.h"

#include "parcel/Int32.h"

namespace orvel::service_apis {

OrvelSimEventResult_t OrvelSimEventResult::read(vesk_buffer* buffer) {
  // Unlike that of other records, a negative mark says that the result is there.
  if (Int32::read(buffer) == 0) return kUnknownError;
  const auto code = static_cast<std::uint32_t>(Int32::read(buffer));
  // A result that ends before its code would read as a success.
  const bool known = vesk_buffer_last_error(buffer) == 0 && code < kUnknownError;
  return known ? static_cast<OrvelSimEventResult_t>(code) : kUnknownError;
}

bool OrvelSimEventResult::write(vesk_payload* /*payload*/, OrvelSimEventResult_t result) {
  return result != kSuccess;
}

}  // namespace orvel::service_apis
