// Reads what services send, for the model: plainly, and in its own way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/Vesk.h"

namespace orvel::fuzz {

// Past the end, and ever after, everything reads as 0 or empty. Texts have no surrogates.
class Reader {
 public:
  // Of a call that failed.
  Reader() : m_failed(true), m_null(true) {}
  explicit Reader(test::Bytes bytes) : m_bytes(std::move(bytes)) {}

  [[nodiscard]] bool null() const { return m_null; }
  [[nodiscard]] bool failed() const { return m_failed; }

  std::int32_t i32() { return static_cast<std::int32_t>(number(4)); }
  std::int64_t i64() { return static_cast<std::int64_t>(number(8)); }
  bool mark() { return i32() > 0; }

  std::string text() {
    const std::int32_t length = i32();
    if (m_failed || length == -1) return {};
    const std::size_t size = (static_cast<std::size_t>(length) * 2 + 2 + 3) / 4 * 4;
    const std::size_t end = m_at + 2 * static_cast<std::size_t>(length);  // where a unit of 0 must stand
    if (length < 0 || m_at + size > m_bytes.size() || m_bytes.data()[end] != 0 || m_bytes.data()[end + 1] != 0) {
      m_failed = true;
      return {};
    }
    std::string text;
    for (std::size_t at = m_at; at < end; at += 2) append(text, m_bytes.data()[at] + 256U * m_bytes.data()[at + 1]);
    text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));  // nothing behind a NUL counts
    m_at += size;
    return text;
  }

  std::vector<std::string> texts() {
    std::int32_t count = m_null ? 0 : i32();
    if (count > 1000) count = 1000;
    std::vector<std::string> all;
    for (; count > 0; --count) all.push_back(text());
    return all;
  }

  void skip(int words) {
    for (; words > 0; --words) i32();
  }

 private:
  static void append(std::string& text, unsigned unit) {
    if (unit < 0x80) {
      text += static_cast<char>(unit);
    } else if (unit < 0x800) {
      text += {static_cast<char>(0xc0U | unit >> 6U), static_cast<char>(0x80U | (unit & 0x3fU))};
    } else {
      text += {static_cast<char>(0xe0U | unit >> 12U), static_cast<char>(0x80U | (unit >> 6U & 0x3fU)),
               static_cast<char>(0x80U | (unit & 0x3fU))};
    }
  }

  std::uint64_t number(std::size_t size) {
    if (m_failed || m_at + size > m_bytes.size()) {
      m_failed = true;
      return 0;
    }
    std::uint64_t value = 0;
    for (std::size_t n = 0; n < size; ++n) value |= std::uint64_t{m_bytes.data()[m_at + n]} << (8 * n);
    m_at += size;
    return value;
  }

  test::Bytes m_bytes;
  std::size_t m_at = 0;
  bool m_failed = false;
  bool m_null = false;
};

// Keys with values of each type; of a key that comes twice, the first counts.
struct Entries {
  std::map<std::string, int> numbers;
  std::map<std::string, long long> longs;
  std::map<std::string, std::string> texts;

  Entries() = default;
  Entries(Reader& reader, int count, bool with_longs) {
    for (; count > 0 && !reader.failed(); --count) {
      const std::string key = reader.text();
      const int tag = reader.i32();
      if (tag == 0) {
        const std::string text = reader.text();
        if (!reader.failed()) texts.emplace(key, text);
      } else if (tag == 1 || tag == 9) {
        const int number = reader.i32();
        if (!reader.failed()) numbers.emplace(key, number);
      } else if (tag == 6 && with_longs) {
        const long long number = reader.i64();
        if (!reader.failed()) longs.emplace(key, number);
      } else if (tag != -1) {
        return;
      }
    }
  }
};

template <typename Value>
Value value_or(const std::map<std::string, Value>& values, const std::string& key, Value otherwise) {
  const auto found = values.find(key);
  return found == values.end() ? otherwise : found->second;
}

struct Intent {
  std::string action;
  std::string data;
  std::string text3;
  std::string package;
  std::pair<std::string, std::string> component;
  Entries extras;
  std::vector<std::string> categories;
  int flags = 0;

  Intent() = default;
  // As it arrives.
  explicit Intent(Reader& reader) {
    const bool there = reader.mark();
    const int length = reader.i32();
    if (!there || length < 1) return;
    action = reader.text();
    data = reader.text();
    text3 = reader.text();
    package = reader.text();
    if (reader.mark()) component.first = reader.text();
    if (!component.first.empty()) component.second = reader.text();
    if (reader.mark()) extras = Entries(reader, reader.i32(), true);
  }
};

}  // namespace orvel::fuzz
