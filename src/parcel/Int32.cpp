#include "parcel/Int32.h"

namespace orvel::service_apis {

int Int32::read(vesk_buffer* buffer) {
  return buffer ? vesk_read_i32(buffer) : 0;
}

bool Int32::write(vesk_payload* payload, int value) {
  vesk_write_i32(payload, value);
  return vesk_payload_last_error(payload) == 0;
}

}  // namespace orvel::service_apis
