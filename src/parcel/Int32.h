// 32-bit integers on the wire.
#pragma once

#include "vesk/vesk.h"

namespace orvel::service_apis {

class Int32 {
 public:
  Int32() = delete;

  // The integer; 0 for a null buffer, and for a failed read what libvesk gives.
  static int read(vesk_buffer* buffer);

  // True while the payload has no error.
  static bool write(vesk_payload* payload, int value);
};

}  // namespace orvel::service_apis
