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

/// Three maps from a key to a value: integers, which booleans are too (0 and 1), long integers, and strings. The same key
/// may stand in each of them. A plain value. Threads: any, one at a time.
class ORVEL_API Bundle {
 public:
  /// What the map of the default's type holds under the key; the default when there is nothing, whatever the other maps
  /// hold.
  int get(const std::string& key, int defaultValue) const;
  /// The same among the long integers.
  long long get(const std::string& key, long long defaultValue) const;
  /// The same among the strings.
  std::string get(const std::string& key, std::string defaultValue) const;

  /// Adds a value to the map of its type. False, and nothing changed, when that map has the key already.
  bool put(const std::string& key, int value);
  /// The same for a long integer.
  bool put(const std::string& key, long long value);
  /// The same for a string.
  bool put(const std::string& key, std::string value);

  /// How many integers and strings there are. Deliberately not the long integers: an intent whose extras are long
  /// integers only is sent without extras.
  std::size_t size() const;

  /// The wire format, for the library's own use. What is sent carries its length, what arrives does not.
  /// read() keeps what came before the end of the buffer or a value of unknown type; of a key that comes twice, the first.
  static Bundle read(vesk_buffer* buffer);
  /// False when something could not be written.
  bool write(vesk_payload* payload) const;

 private:
  friend struct OrvelIntent;

  /// Announces `length`, and returns the one that it wrote; 0 when something could not be written.
  ORVEL_LOCAL int write(vesk_payload* payload, int length) const;

  std::unordered_map<std::string, std::int32_t> m_integers;
  std::unordered_map<std::string, std::int64_t> m_longs;
  std::unordered_map<std::string, std::string> m_strings;
};

}  // namespace orvel::service_apis
