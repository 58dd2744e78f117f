/// @file
/// Named values that travel with an intent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "orvel/Export.h"

struct vesk_buffer;
struct vesk_payload;

namespace orvel::service_apis {

/// Three maps from a key to a value: integers, which booleans are too (0 and 1), long integers, and strings. The same
/// key may stand in each of them. A plain value. Threads: any, one at a time.
class ORVEL_API Bundle {
 private:
  template <typename Integer>
  using WiderThanInt =
      std::enable_if_t<std::is_same_v<Integer, unsigned> || std::is_same_v<Integer, long> ||
                           std::is_same_v<Integer, unsigned long> || std::is_same_v<Integer, unsigned long long>,
                       int>;

 public:
  /// What the map of the default's type holds under the key; the default when that map does not have the key, even when
  /// another map does.
  int get(const std::string& key, int defaultValue) const;
  /// The same among the long integers.
  long long get(const std::string& key, long long defaultValue) const;
  /// The same among the strings.
  std::string get(const std::string& key, std::string defaultValue) const;
  /// The same among the long integers, for the other types of integers that are not widened to int; the default, too,
  /// for a value that the type cannot hold.
  template <typename Integer, WiderThanInt<Integer> = 0>
  Integer get(const std::string& key, Integer defaultValue) const {
    if (!containsLong(key)) return defaultValue;
    const long long value = get(key, 0LL);
    return fits<Integer>(value) ? static_cast<Integer>(value) : defaultValue;
  }
  /// A pointer is not a text.
  std::string get(const std::string& key, std::nullptr_t) const = delete;

  /// True when the value was added to the map of its type; false, and nothing changed, when that map has the key
  /// already.
  bool put(const std::string& key, int value);
  /// The same for a long integer.
  bool put(const std::string& key, long long value);
  /// The same for a string.
  bool put(const std::string& key, std::string value);
  /// The same for the other types of integers that are not widened to int: they become long integers. False, too, for a
  /// value beyond those.
  template <typename Integer, WiderThanInt<Integer> = 0>
  bool put(const std::string& key, Integer value) {
    if constexpr (std::is_unsigned_v<Integer>) {
      if (value > static_cast<unsigned long long>(std::numeric_limits<long long>::max())) return false;
    }
    return put(key, static_cast<long long>(value));
  }
  /// A pointer is not a text.
  bool put(const std::string& key, std::nullptr_t) = delete;

  /// True when one of the maps has the key.
  [[nodiscard]] bool contains(const std::string& key) const;

  /// All keys, each once, in the order of their bytes.
  [[nodiscard]] std::vector<std::string> keys() const;

  /// True when both hold the same under the same keys.
  friend bool operator==(const Bundle& a, const Bundle& b) {
    return a.m_integers == b.m_integers && a.m_longs == b.m_longs && a.m_strings == b.m_strings;
  }
  /// The opposite.
  friend bool operator!=(const Bundle& a, const Bundle& b) { return !(a == b); }

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

  template <typename Integer>
  static bool fits(long long value) {
    if constexpr (std::is_unsigned_v<Integer>) {
      return value >= 0 && static_cast<unsigned long long>(value) <= std::numeric_limits<Integer>::max();
    } else {
      return value >= std::numeric_limits<Integer>::min() && value <= std::numeric_limits<Integer>::max();
    }
  }
  bool containsLong(const std::string& key) const { return m_longs.find(key) != m_longs.end(); }

  /// Returns the length that it wrote, 0 when something could not be written; announces `length`.
  ORVEL_LOCAL int write(vesk_payload* payload, int length) const;

  std::unordered_map<std::string, std::int32_t> m_integers;
  std::unordered_map<std::string, std::int64_t> m_longs;
  std::unordered_map<std::string, std::string> m_strings;
};

}  // namespace orvel::service_apis
