/// @file
/// Named values that travel with an intent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "orvel/Export.h"

struct vesk_buffer;
struct vesk_payload;

namespace orvel::service_apis {

/// Three maps from a key to a value: integers, which booleans are too (0 and 1), long integers, and strings. The same
/// key may stand in each of them. A plain value. Threads: any, one at a time.
class ORVEL_API Bundle {
 public:
  /// What the map of the default's type holds under the key; the default when that map does not have the key, even when
  /// another map does.
  int get(const std::string& key, int defaultValue) const;
  /// The same among the long integers.
  long long get(const std::string& key, long long defaultValue) const;
  /// The same among the strings.
  std::string get(const std::string& key, std::string defaultValue) const;

  /// True when the value was added to the map of its type; false, and nothing changed, when that map has the key
  /// already.
  bool put(const std::string& key, int value);
  /// The same for a long integer.
  bool put(const std::string& key, long long value);
  /// The same for a string.
  bool put(const std::string& key, std::string value);

  /// The number of integers and strings. Deliberately without the long integers: an intent whose extras are long
  /// integers only is sent without extras.
  std::size_t size() const;

  /// The wire format, for the library's own use. A bundle that is sent carries its length, one that arrives does not.
  /// read() returns the entries before the end of the buffer or a value of unknown type; of a key that comes twice, the
  /// first.
  static Bundle read(vesk_buffer* buffer);
  /// True when everything was written.
  bool write(vesk_payload* payload) const;

 private:
  friend struct OrvelIntent;

  /// Returns the length that it wrote, 0 when something could not be written; announces `length`.
  ORVEL_LOCAL int write(vesk_payload* payload, int length) const;

  std::unordered_map<std::string, std::int32_t> m_integers;
  std::unordered_map<std::string, std::int64_t> m_longs;
  std::unordered_map<std::string, std::string> m_strings;
};

}  // namespace orvel::service_apis
