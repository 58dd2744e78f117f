// What a peer writes to the host runtime's sockets, byte by byte.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <string>

namespace orvel::fuzz {

constexpr char kServiceName[] = "fuzz";
constexpr char kServicePath[] = "/service/fuzz";

// The connecting half of the authentication.
inline std::string handshake() {
  constexpr char kHex[] = "0123456789abcdef";
  std::string uid;
  for (const char digit : std::to_string(::getuid())) uid += {kHex[digit >> 4], kHex[digit & 15]};
  std::string lines("\0AUTH EXTERNAL ", 15);
  return lines + uid + "\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n";
}

// Values of a message, each at its boundary.
class BusBytes {
 public:
  BusBytes& u8(unsigned value) {
    m_bytes += static_cast<char>(value);
    return *this;
  }
  BusBytes& u32(std::uint32_t value) { return align(4).number(value, 4); }
  BusBytes& u64(std::uint64_t value) { return align(8).number(value, 8); }
  BusBytes& text(const std::string& value) {
    u32(static_cast<std::uint32_t>(value.size()));
    m_bytes += value;
    return u8(0);
  }
  BusBytes& signature(const std::string& value) {
    u8(static_cast<unsigned>(value.size()));
    m_bytes += value;
    return u8(0);
  }
  BusBytes& bytes(const std::string& value) {
    u32(static_cast<std::uint32_t>(value.size()));
    m_bytes += value;
    return *this;
  }
  BusBytes& align(std::size_t boundary) {
    m_bytes.resize((m_bytes.size() + boundary - 1) / boundary * boundary);
    return *this;
  }
  [[nodiscard]] const std::string& str() const { return m_bytes; }

 private:
  BusBytes& number(std::uint64_t value, int size) {
    for (int n = 0; n < size; ++n) u8(static_cast<unsigned>(value >> (8 * n)) & 255U);
    return *this;
  }

  std::string m_bytes;
};

// A method call of the interface vesk.Peer, two-way unless said otherwise, with descriptors beside it.
inline std::string busCall(const std::string& path, const std::string& member, const std::string& signature,
                           const std::string& body, bool oneWay = false, unsigned descriptors = 0) {
  BusBytes fields;  // in a message they begin at a multiple of 8
  fields.u8(1).signature("o").text(path);
  fields.align(8).u8(2).signature("s").text("vesk.Peer");
  fields.align(8).u8(3).signature("s").text(member);
  if (!signature.empty()) fields.align(8).u8(8).signature("g").signature(signature);
  if (descriptors != 0) fields.align(8).u8(9).signature("u").u32(descriptors);
  BusBytes message;
  message.u8('l').u8(1).u8(oneWay ? 1 : 0).u8(1).u32(static_cast<std::uint32_t>(body.size())).u32(1);
  message.u32(static_cast<std::uint32_t>(fields.str().size()));
  return message.str() + fields.align(8).str() + body;
}

}  // namespace orvel::fuzz
