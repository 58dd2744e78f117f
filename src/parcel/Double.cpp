#include "parcel/Double.h"

namespace orvel::service_apis {

bool Double::read(vesk_buffer* buffer, double* out) {
  if (!buffer || !out) return false;
  *out = vesk_read_f64(buffer);
  return true;
}

bool Double::write(vesk_payload* payload, double value) {
  vesk_write_f64(payload, value);
  return vesk_payload_last_error(payload) == 0;
}

}  // namespace orvel::service_apis
