// Arrays of strings on the wire.
#pragma once

#include <string>
#include <vector>

#include "vesk/vesk.h"

namespace orvel::service_apis {

class StringArray {
 public:
  StringArray() = delete;

  // The announced number of strings, at most 1,000; none for a null buffer and a null array. Further strings stay
  // unread; strings behind the end of the buffer are empty.
  static std::vector<std::string> read(vesk_buffer* buffer);

  // True while the payload has no error. Borrows NUL-terminated strings, which may be empty but not null.
  static bool write(vesk_payload* payload, const std::vector<const char*>& values);
  static bool write(vesk_payload* payload, const std::vector<std::string>& values);
};

}  // namespace orvel::service_apis
