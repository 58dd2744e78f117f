// Values of settings, which are all text.
#pragma once

#include <string>

// What leaves setting_to_int() passes through callers that hold locks and let them go on the way.
#ifndef __cpp_exceptions
#error "build with -fexceptions: without, a setting that is not a number leaves the library's locks held"
#endif

namespace orvel::service_apis {

// The number that `value` begins with, in base 10 behind blanks and a sign; `default_value` for an empty one. Throws
// std::invalid_argument and std::out_of_range, which are the caller's to see: a setting that is no number is no
// default.
inline int setting_to_int(const std::string& value, int default_value) {
  return value.empty() ? default_value : std::stoi(value);
}

}  // namespace orvel::service_apis
