#include "parcel/Int64.h"

namespace orvel::service_apis {

bool Int64::read(vesk_buffer* buffer, long long* out) {
  if (!buffer || !out) return false;
  *out = vesk_read_i64(buffer);
  return true;
}

bool Int64::write(vesk_payload* payload, long long value) {
  vesk_write_i64(payload, value);
  return vesk_payload_last_error(payload) == 0;
}

}  // namespace orvel::service_apis
