// Values of settings, which are all text.
#pragma once

#include <string>

// An exception of setting_to_int() passes through callers that hold locks, which it unlocks.
#ifndef __cpp_exceptions
#error "build with -fexceptions: without, a setting that is not a number leaves the library's locks held"
#endif

namespace orvel::service_apis {

// Returns the number that `value` begins with, in base 10 behind blanks and a sign; `default_value` for an empty one.
// Throws std::invalid_argument and std::out_of_range, which reach the caller of the client: a setting that is not a
// number must not read as the default.
inline int setting_to_int(const std::string& value, int default_value) {
  return value.empty() ? default_value : std::stoi(value);
}

}  // namespace orvel::service_apis
