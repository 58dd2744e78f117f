// Wire bytes spelled by hand, so that what a test expects never comes out of the code that it checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "vesk/message/Owners.h"
#include "vesk/vesk_service.h"

namespace vesk::inprocess {

// A message, value after value: Bytes().i32(0).utf16("abc"). Little-endian on every host.
class Bytes {
 public:
  Bytes() = default;
  Bytes(const void* data, std::size_t size) : m_bytes(size) {
    if (size != 0) std::memcpy(m_bytes.data(), data, size);
  }

  Bytes& raw(std::initializer_list<unsigned> bytes) {
    for (const unsigned byte : bytes) m_bytes.push_back(static_cast<std::uint8_t>(byte));
    return *this;
  }
  Bytes& i32(std::int32_t value) { return number(static_cast<std::uint32_t>(value), 4); }
  Bytes& i64(std::int64_t value) { return number(static_cast<std::uint64_t>(value), 8); }
  Bytes& f64(double value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return number(bits, 8);
  }
  // A null string or a null array.
  Bytes& null() { return i32(-1); }
  // One unit for each ASCII character; anything else is written as u"...".
  Bytes& utf16(std::string_view ascii) { return utf16(std::u16string(ascii.begin(), ascii.end())); }
  Bytes& utf16(const std::u16string& text) {
    i32(static_cast<std::int32_t>(text.size()));
    for (const char16_t unit : text) number(unit, 2);
    number(0, 2);
    return m_bytes.size() % 4 == 0 ? *this : number(0, 2);
  }
  Bytes& append(const Bytes& tail) {
    m_bytes.insert(m_bytes.end(), tail.m_bytes.begin(), tail.m_bytes.end());
    return *this;
  }
  // Loses its last `count` bytes, as a damaged message does.
  Bytes& cut(std::size_t count) {
    m_bytes.resize(m_bytes.size() - count);
    return *this;
  }

  [[nodiscard]] const std::uint8_t* data() const { return m_bytes.data(); }
  [[nodiscard]] std::size_t size() const { return m_bytes.size(); }
  friend bool operator==(const Bytes& a, const Bytes& b) { return a.m_bytes == b.m_bytes; }
  friend bool operator!=(const Bytes& a, const Bytes& b) { return !(a == b); }

  // Words of four bytes in the order in which they lie, for gtest's messages.
  friend std::ostream& operator<<(std::ostream& out, const Bytes& bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    out << bytes.size() << " bytes:";
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      if (at % 4 == 0) out << ' ';
      out << kDigits[bytes.m_bytes[at] >> 4U] << kDigits[bytes.m_bytes[at] & 15U];
    }
    return out;
  }

 private:
  Bytes& number(std::uint64_t value, int size) {
    for (int n = 0; n < size; ++n) m_bytes.push_back(static_cast<std::uint8_t>(value >> (8 * n)));
    return *this;
  }

  std::vector<std::uint8_t> m_bytes;
};

// A message as a text: `7` is a 32-bit number and `7L` a 64-bit one, `'abc'` a string, which has no blanks, `~` a null
// one.
inline Bytes wire(const std::string& text) {
  std::istringstream words(text);
  Bytes bytes;
  for (std::string word; words >> word;) {
    if (word[0] == '\'') {
      bytes.utf16(word.substr(1, word.size() - 2));
    } else if (word == "~") {
      bytes.null();
    } else if (word.back() == 'L') {
      bytes.i64(std::stoll(word));
    } else {
      bytes.i32(std::stoi(word));
    }
  }
  return bytes;
}

// Messages of libvesk and the bytes in them.
using vesk::BufferPtr;
using vesk::PayloadPtr;

inline BufferPtr buffer_of(const Bytes& bytes) {
  BufferPtr buffer(vesk_buffer_alloc());
  vesk_buffer_assign(buffer.get(), bytes.data(), bytes.size());
  return buffer;
}

inline Bytes bytes_of(const vesk_payload* payload) {
  std::size_t size = 0;
  const void* data = vesk_payload_data(payload, &size);
  return {data, size};
}

// Reads a string that is known to be ASCII.
inline std::string read_ascii(vesk_buffer* buffer) {
  unsigned length = 0;
  const std::uint16_t* units = vesk_read_utf16_string(buffer, &length);
  return {units, units + length};
}

}  // namespace vesk::inprocess
