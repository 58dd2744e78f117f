#include "Parcel.h"

#include <cerrno>
#include <cstring>

namespace vesk {
namespace {

// "VESP", where an endpoint reference stands; followed by its index.
constexpr std::int32_t kEndpointMark = 0x56455350;
constexpr char32_t kReplacement = 0xFFFD;
constexpr std::size_t kFirstReservation = 256;

constexpr std::size_t padded(std::size_t size) {
  return (size + 3) & ~std::size_t{3};
}

struct Utf8Lead {
  unsigned continuation_bytes;
  char32_t bits;
  unsigned char first_low,
      first_high;  // what the first continuation byte may be: excludes over-long forms and surrogates
};

// A lead with no continuation bytes is not the start of a multi-byte sequence.
Utf8Lead classify(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return {1, lead & 0x1FU, 0x80, 0xBF};
  if (lead == 0xE0) return {2, 0, 0xA0, 0xBF};
  if (lead == 0xED) return {2, 0xD, 0x80, 0x9F};
  if (lead >= 0xE1 && lead <= 0xEF) return {2, lead & 0xFU, 0x80, 0xBF};
  if (lead == 0xF0) return {3, 0, 0x90, 0xBF};
  if (lead >= 0xF1 && lead <= 0xF3) return {3, lead & 7U, 0x80, 0xBF};
  if (lead == 0xF4) return {3, 4, 0x80, 0x8F};
  return {0, 0, 0, 0};
}

// Decodes one code point and moves `at` past what it consumed.
char32_t next_code_point(std::string_view text, std::size_t& at) {
  const auto lead = static_cast<unsigned char>(text[at++]);
  if (lead < 0x80) return lead;
  const Utf8Lead kind = classify(lead);
  if (kind.continuation_bytes == 0) return kReplacement;
  char32_t code = kind.bits;
  for (unsigned n = 0; n < kind.continuation_bytes; ++n, ++at) {
    const unsigned char low = n == 0 ? kind.first_low : 0x80;
    const unsigned char high = n == 0 ? kind.first_high : 0xBF;
    if (at == text.size()) return kReplacement;
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < low || byte > high) return kReplacement;
    code = (code << 6U) | (byte & 0x3FU);
  }
  return code;
}

}  // namespace

int Parcel::fail(int error) {
  if (m_error == 0) m_error = error;
  return m_error;
}

int Parcel::set_position(std::size_t position) {
  if (position > m_bytes.size() || position % 4 != 0) return fail(-EINVAL);
  m_position = position;
  return m_error;
}

int Parcel::truncate(std::size_t size) {
  if (size > m_bytes.size()) return -EINVAL;
  m_bytes.resize(size);
  // A word that is cut is written anew, so that values stay at their boundaries.
  if (m_position > size) m_position = size & ~std::size_t{3};
  return 0;
}

void Parcel::assign(const void* data, std::size_t size) {
  const auto* first = static_cast<const std::byte*>(data);
  m_bytes.assign(first, first + size);
  m_position = 0;
  m_error = 0;
}

int Parcel::write_utf16(std::string_view utf8) {
  if (m_error != 0) return m_error;
  // No text has more UTF-16 units than UTF-8 bytes, and no message may be larger than this, so neither may the text.
  if (utf8.size() > kMaxMessageBytes) return fail(-EMSGSIZE);
  // Measured first: a string that is written before the end overwrites just its own bytes.
  std::size_t units = 0;
  for (std::size_t at = 0; at < utf8.size();) units += next_code_point(utf8, at) > 0xFFFF ? 2 : 1;
  const std::size_t total = sizeof(std::int32_t) + padded((units + 1) * sizeof(std::uint16_t));
  std::byte* out = extend(total);
  const auto length = static_cast<std::int32_t>(units);
  std::memcpy(out, &length, sizeof(length));
  out += sizeof(length);
  const auto put = [&out](char32_t unit) {
    const auto value = static_cast<std::uint16_t>(unit);
    std::memcpy(out, &value, sizeof(value));
    out += sizeof(value);
  };
  for (std::size_t at = 0; at < utf8.size();) {
    const char32_t code = next_code_point(utf8, at);
    if (code > 0xFFFF) {
      put(0xD800 + ((code - 0x10000) >> 10U));
      put(0xDC00 + ((code - 0x10000) & 0x3FFU));
    } else {
      put(code);
    }
  }
  put(0);
  if (units % 2 == 0) put(0);
  return 0;
}

int Parcel::write_endpoint_mark(std::uint32_t index) {
  const std::int32_t words[2] = {kEndpointMark, static_cast<std::int32_t>(index)};
  return write_raw(words, sizeof(words));
}

const std::uint16_t* Parcel::read_utf16(unsigned int* length) {
  *length = 0;
  const std::size_t start = m_position;
  const std::int32_t units = read_i32();
  if (m_error != 0 || units == -1) return nullptr;
  // Compared first: the size of a damaged length may not fit in a size_t of 32 bits.
  if (units >= 0 && static_cast<std::size_t>(units) < remaining() / sizeof(std::uint16_t)) {
    const std::size_t text_bytes = (static_cast<std::size_t>(units) + 1) * sizeof(std::uint16_t);
    if (const std::byte* text = take(padded(text_bytes))) {
      std::uint16_t terminator = 0;
      std::memcpy(&terminator, text + text_bytes - sizeof(terminator), sizeof(terminator));
      if (terminator == 0) {
        *length = static_cast<unsigned int>(units);
        // Aligned: the vector's storage is, and every position is a multiple of 4.
        return static_cast<const std::uint16_t*>(static_cast<const void*>(text));
      }
    }
  }
  m_position = start;  // nothing of a damaged string counts as read
  fail(-EBADMSG);
  return nullptr;
}

bool Parcel::read_endpoint_mark(std::size_t count, std::uint32_t* index) {
  const std::size_t start = m_position;
  const std::int32_t mark = read_i32();
  const auto value = static_cast<std::uint32_t>(read_i32());
  if (m_error == 0 && mark == kEndpointMark && value < count) {
    *index = value;
    return true;
  }
  m_position = start;
  fail(-EBADMSG);
  return false;
}

int Parcel::write_raw(const void* data, std::size_t size) {
  if (m_error != 0) return m_error;
  std::memcpy(extend(size), data, size);
  return 0;
}

std::byte* Parcel::extend(std::size_t size) {
  if (m_bytes.capacity() == 0) m_bytes.reserve(kFirstReservation);
  const std::size_t end = m_position + size;
  if (end > m_bytes.size()) m_bytes.resize(end);
  std::byte* out = m_bytes.data() + m_position;
  m_position = end;
  return out;
}

const std::byte* Parcel::take(std::size_t size) {
  if (m_error != 0) return nullptr;
  if (size > remaining()) {
    fail(-ENODATA);
    return nullptr;
  }
  const std::byte* data = m_bytes.data() + m_position;
  m_position += size;
  return data;
}

template <typename T>
T Parcel::read_raw() {
  T value{};
  if (const std::byte* data = take(sizeof(T))) std::memcpy(&value, data, sizeof(T));
  return value;
}

template std::int32_t Parcel::read_raw<std::int32_t>();
template std::int64_t Parcel::read_raw<std::int64_t>();
template double Parcel::read_raw<double>();

}  // namespace vesk
