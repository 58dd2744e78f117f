// Strings: UTF-8 in memory, UTF-16 on the wire.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

class String {
 public:
  String() = delete;

  // The string, cut at an embedded U+0000; "" for a null buffer, a null string, an empty string and a failed read
  // alike.
  static std::string read(vesk_buffer* buffer);

  // Moves past a string without converting it.
  static void skip(vesk_buffer* buffer);

  // True while the payload has no error; a null pointer is one. Writes a string, never a null one, up to its first NUL.
  static bool write(vesk_payload* payload, const char* value);
  static bool write(vesk_payload* payload, const std::string& value);

  // The same, with a null string, the 32-bit value -1, in place of a null pointer or an empty string.
  static bool write_optional(vesk_payload* payload, const char* value);
  static bool write_optional(vesk_payload* payload, const std::string& value);
};

}  // namespace orvel::service_apis
