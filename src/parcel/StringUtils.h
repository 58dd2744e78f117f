// Conversions of text.
#pragma once

#include <string>

namespace orvel::service_apis {

class StringUtils {
 public:
  StringUtils() = delete;

  // The text in UTF-8, deliberately up to its first U+0000. `length` counts code units; `data` may be null when there
  // are none. Unpaired surrogates come out as the platform's converter leaves them.
  static std::string convertUtf16ToUtf8(const unsigned short* data, unsigned int length);
};

}  // namespace orvel::service_apis
