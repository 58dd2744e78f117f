// The bytes of one message: little-endian values at 4-byte boundaries behind a read or write position.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace vesk {

// The largest message that a process sends and that a receiver accepts.
constexpr std::size_t kMaxMessageBytes = std::size_t{8} << 20;

// The most endpoint references in one message: each costs its receiver much more than the eight bytes that it takes.
constexpr std::size_t kMaxMessageEndpoints = 1024;

// One message's bytes. A payload writes, a buffer reads; both keep the first error and refuse everything after it. One
// thread at a time. Writing throws std::bad_alloc when memory runs out; reading never throws.
class Parcel {
 public:
  Parcel() = default;
  explicit Parcel(std::vector<std::byte> bytes) : m_bytes(std::move(bytes)) {}

  [[nodiscard]] int error() const { return m_error; }
  [[nodiscard]] std::size_t position() const { return m_position; }
  [[nodiscard]] const std::vector<std::byte>& bytes() const { return m_bytes; }
  [[nodiscard]] std::size_t remaining() const { return m_bytes.size() - m_position; }

  // Makes the first failure stick; returns the error that now holds.
  int fail(int error);

  // Moves to an earlier written byte or to the end, always at a 4-byte boundary.
  int set_position(std::size_t position);

  // Drops what lies behind `size`; a position behind it moves to the last boundary before it.
  int truncate(std::size_t size);

  // Replaces the contents by a copy of `size` bytes, forgets the error and moves to the start.
  void assign(const void* data, std::size_t size);

  int write_i32(std::int32_t value) { return write_raw(&value, sizeof(value)); }
  int write_i64(std::int64_t value) { return write_raw(&value, sizeof(value)); }
  int write_f64(double value) { return write_raw(&value, sizeof(value)); }

  // Bytes that are not well-formed UTF-8 become U+FFFD, one for each maximal part of a sequence.
  int write_utf16(std::string_view utf8);

  // The mark that stands for the `index`th endpoint which travels with the message.
  int write_endpoint_mark(std::uint32_t index);

  std::int32_t read_i32() { return read_raw<std::int32_t>(); }
  std::int64_t read_i64() { return read_raw<std::int64_t>(); }
  double read_f64() { return read_raw<double>(); }

  // Points into this parcel; null for a null string and on failure.
  const std::uint16_t* read_utf16(unsigned int* length);

  // The index behind an endpoint mark, which must be below `count`; fails where no such mark stands.
  bool read_endpoint_mark(std::size_t count, std::uint32_t* index);

 private:
  int write_raw(const void* data, std::size_t size);
  std::byte* extend(std::size_t size);
  const std::byte* take(std::size_t size);

  template <typename T>
  T read_raw();

  std::vector<std::byte> m_bytes;
  std::size_t m_position = 0;  // a multiple of 4, at most m_bytes.size()
  int m_error = 0;
};

}  // namespace vesk
