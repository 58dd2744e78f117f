// Arrays of strings on the wire.
#pragma once

#include <string>
#include <vector>

#include "vesk/vesk.h"

namespace orvel::service_apis {

class StringArray {
 public:
  StringArray() = delete;

  // The announced number of strings, at most 1,000: what an announced length exceeds stays unread, and what the buffer
  // ends before is empty. Nothing for a null buffer and a null array.
  static std::vector<std::string> read(vesk_buffer* buffer);

  // Borrows NUL-terminated strings, which may be empty but not null. True while the payload has no error.
  static bool write(vesk_payload* payload, const std::vector<const char*>& values);
  static bool write(vesk_payload* payload, const std::vector<std::string>& values);
};

}  // namespace orvel::service_apis
