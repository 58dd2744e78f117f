// What all fuzz targets share: promises, what an input makes the code allocate, and values drawn from an input. A
// target is one function, called by libFuzzer where clang builds with AddressSanitizer, elsewhere by replay.cpp.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

// Both fuzzers' entry: what it returns is 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace orvel::fuzz {

// Says what does not hold and aborts.
void require(bool condition, const char* promise);

// The bytes that operator new has returned on this thread so far, including those that were freed.
std::uint64_t allocated();

// What reading `size` bytes may allocate, intermediate values included. The worst that is known is an entry of a bundle
// whose key is taken already: five times its twelve bytes. An array of strings may announce 1,000 that are not there.
constexpr std::uint64_t allowedFor(std::size_t size) {
  return 12 * size + 200'000;
}

// The bytes of an input. Borrowed.
struct Input {
  const std::uint8_t* data;
  std::size_t size;
};

// Values out of an input; 0 and empty when it has ended.
class Choices {
 public:
  explicit Choices(Input input) : m_left(input) {}

  [[nodiscard]] bool ended() const { return m_left.size == 0; }
  // Everything that has not been drawn.
  [[nodiscard]] Input rest() const { return m_left; }
  [[nodiscard]] std::string text() const { return {reinterpret_cast<const char*>(m_left.data), m_left.size}; }

  std::uint8_t byte() { return number<std::uint8_t>(); }

  // A number of the type from as many bytes.
  template <typename Number>
  Number number() {
    Number value{};
    const std::size_t size = std::min(sizeof(value), m_left.size);
    if (size != 0) std::memcpy(&value, m_left.data, size);
    drop(size);
    return value;
  }

  // Up to 255 bytes as they are.
  std::string bytes() {
    const std::size_t size = std::min<std::size_t>(byte(), m_left.size);
    std::string bytes(reinterpret_cast<const char*>(m_left.data), size);
    drop(size);
    return bytes;
  }

 private:
  void drop(std::size_t size) {
    m_left.data += size;
    m_left.size -= size;
  }

  Input m_left;
};

}  // namespace orvel::fuzz
