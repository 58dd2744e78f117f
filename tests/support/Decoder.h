// Takes messages apart, independently of the client library and of the device, so that a mistake of theirs does not
// hide behind the same mistake here.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/Vesk.h"

namespace orvel::test {

// The entries of a bundle by type. Of a key that comes twice, the first counts.
struct Entries {
  std::map<std::string, int> numbers;
  std::map<std::string, long long> longs;
  std::map<std::string, std::string> texts;
};

struct Intent {
  std::string action;
  std::string data;
  std::string text3;
  std::string package;
  std::pair<std::string, std::string> component;
  Entries extras;
  std::vector<std::string> categories;  // sent by clients only, as are the flags
  int flags = 0;
};

// Reads one value after the other. Behind the end, and from the first damaged string on, every value is 0 or empty and
// nothing is consumed.
class Decoder {
 public:
  static constexpr int kMaxTexts = 1000;  // of one array

  explicit Decoder(Bytes bytes) : m_bytes(std::move(bytes)) {}

  [[nodiscard]] bool failed() const { return m_failed; }
  [[nodiscard]] std::size_t left() const { return m_bytes.size() - m_at; }
  // False after a string with a surrogate that has no partner, which converters may replace as they like.
  [[nodiscard]] bool paired() const { return m_paired; }

  std::int32_t i32() { return static_cast<std::int32_t>(number(4)); }
  std::int64_t i64() { return static_cast<std::int64_t>(number(8)); }
  double f64() {
    const std::uint64_t bits = number(8);
    double value = 0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
  }

  // Whether so many marks follow. The first one that is not set is the last one that is consumed.
  bool mark(int count = 1) {
    while (count > 0 && i32() > 0) --count;
    return count == 0;
  }

  void skip(int words) {
    for (; words > 0; --words) i32();
  }

  // The three words and the interface that each request begins with.
  void skip_header() {
    skip(3);
    text();
  }

  // A string as UTF-8, up to its first NUL. Null strings are empty.
  std::string text() {
    const std::size_t start = m_at;
    const std::int32_t length = i32();
    if (m_failed || length == -1) return {};
    const auto units = static_cast<std::size_t>(length);
    const std::size_t size = (units * 2 + 2 + 3) / 4 * 4;
    if (length < 0 || size > left() || unit(units) != 0) {
      m_failed = true;
      m_at = start;
      return {};
    }
    std::string text;
    for (std::size_t n = 0; n < units && unit(n) != 0; ++n) {
      if (is_high(unit(n)) && is_low(unit(n + 1))) {
        append(text, 0x10000 + ((unit(n) - 0xD800) << 10U) + (unit(n + 1) - 0xDC00));
        ++n;
      } else {
        m_paired = m_paired && !is_high(unit(n)) && !is_low(unit(n));
        append(text, unit(n));
      }
    }
    m_at += size;
    return text;
  }

  std::vector<std::string> texts() {
    std::vector<std::string> all(static_cast<std::size_t>(std::clamp(i32(), 0, kMaxTexts)));
    for (std::string& text : all) text = this->text();
    return all;
  }

  // Up to `count` entries. An entry of an unknown type ends them; 64-bit numbers are unknown unless `with_longs`.
  Entries entries(int count, bool with_longs) {
    Entries entries;
    for (; count > 0 && !m_failed; --count) {
      const std::string key = text();
      const int type = i32();
      if (type == 0) {
        keep(entries.texts, key, text());
      } else if (type == 1 || type == 9) {
        keep(entries.numbers, key, int{i32()});
      } else if (type == 6 && with_longs) {
        keep(entries.longs, key, static_cast<long long>(i64()));
      } else if (type != -1) {
        break;
      }
    }
    return entries;
  }

  // An intent as services send it: without categories and flags.
  Intent intent() {
    Intent intent;
    const bool there = mark();
    const int length = i32();
    if (!there || length < 1) return intent;
    for (std::string* member : {&intent.action, &intent.data, &intent.text3, &intent.package}) *member = text();
    if (mark()) intent.component = component();
    if (mark()) intent.extras = entries(i32(), true);
    return intent;
  }

  // Package and class; an empty package ends it.
  std::pair<std::string, std::string> component() {
    std::pair<std::string, std::string> component;
    component.first = text();
    if (!component.first.empty()) component.second = text();
    return component;
  }

 private:
  static bool is_high(std::uint32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
  static bool is_low(std::uint32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

  [[nodiscard]] std::uint32_t unit(std::size_t n) const {
    const std::uint8_t* bytes = m_bytes.data() + m_at + 2 * n;
    return bytes[0] + 256U * bytes[1];
  }

  static void append(std::string& utf8, std::uint32_t code) {
    constexpr std::uint32_t kLead[] = {0, 0xC0, 0xE0, 0xF0};
    unsigned tail = code < 0x80 ? 0 : code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    utf8 += static_cast<char>(kLead[tail] | code >> (6 * tail));
    while (tail-- > 0) utf8 += static_cast<char>(0x80U | (code >> (6 * tail) & 63U));
  }

  template <typename Value>
  void keep(std::map<std::string, Value>& values, const std::string& key, Value value) const {
    if (!m_failed) values.emplace(key, std::move(value));
  }

  std::uint64_t number(std::size_t size) {
    if (m_failed || size > left()) {
      m_failed = true;
      return 0;
    }
    std::uint64_t value = 0;
    for (std::size_t n = 0; n < size; ++n) value |= std::uint64_t{m_bytes.data()[m_at + n]} << (8 * n);
    m_at += size;
    return value;
  }

  Bytes m_bytes;
  std::size_t m_at = 0;
  bool m_failed = false;
  bool m_paired = true;
};

}  // namespace orvel::test
