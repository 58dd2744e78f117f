// 64-bit integers on the wire.
#pragma once

#include "vesk/vesk.h"

namespace orvel::service_apis {

class Int64 {
 public:
  Int64() = delete;

  // True when `out` was set, by a failed read to what libvesk gives; false, with nothing consumed and `out` untouched,
  // when either pointer is null.
  static bool read(vesk_buffer* buffer, long long* out);

  // True while the payload has no error.
  static bool write(vesk_payload* payload, long long value);
};

}  // namespace orvel::service_apis
