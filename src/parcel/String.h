// Strings: UTF-8 in memory, UTF-16 on the wire.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

class String {
 public:
  String() = delete;

  // "" for a null buffer, a null string, an empty string and a failed read alike. Cut at an embedded U+0000.
  static std::string read(vesk_buffer* buffer);

  // Writes a string, never a null one; what follows a NUL is not written. A null pointer is an error of the payload.
  // True while the payload has no error.
  static bool write(vesk_payload* payload, const char* value);
  static bool write(vesk_payload* payload, const std::string& value);

  // Writes a null string, the 32-bit value -1, in place of a null pointer or an empty string.
  static bool write_optional(vesk_payload* payload, const char* value);
  static bool write_optional(vesk_payload* payload, const std::string& value);
};

}  // namespace orvel::service_apis
