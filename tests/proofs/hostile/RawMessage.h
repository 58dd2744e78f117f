// Messages of the connection between two processes, byte by byte, so that any of them may be wrong. Nothing here shares a line
// with the runtime that they are thrown at.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vesk/host/Support.h"

namespace orvel::hostile {

// What a client writes first, all at once; `kAnswer` is what a service answers to it.
extern const std::string kHello;
extern const std::string kAnswer;

// Values one after the other, each at the boundary of its own size.
class Body {
 public:
  explicit Body(bool big_endian = false) : m_big(big_endian) {}

  Body& u32(std::uint32_t value) { return number(value, 4); }
  Body& u64(std::uint64_t value) { return number(value, 8); }
  Body& text(std::string_view value);                      // string or object path
  Body& array(std::string_view bytes);                     // of bytes
  Body& array(const std::vector<std::uint64_t>& numbers);  // of 64-bit numbers
  Body& raw(std::string_view bytes) { return append(bytes); }

  [[nodiscard]] const std::string& bytes() const { return m_bytes; }

 private:
  friend struct Message;
  Body& number(std::uint64_t value, int size);
  Body& align(std::size_t boundary);
  Body& append(std::string_view bytes);
  Body& field(char code, char type, std::string_view value);
  Body& field(char code, std::uint32_t value);

  bool m_big;
  std::string m_bytes;
};

enum MessageType : std::uint8_t { kCall = 1, kReturn = 2, kError = 3, kSignal = 4 };
constexpr std::uint8_t kNoReplyExpected = 1;

// One message. What is not set is left out or, where it cannot be, is what it ought to be.
struct Message {
  char endian = 'l';
  std::uint8_t type = kCall;
  std::uint8_t flags = 0;
  std::uint8_t version = 1;
  std::uint32_t serial = 1;
  std::optional<std::uint32_t> body_length;
  std::optional<std::uint32_t> fields_length;
  std::optional<std::string> path;
  std::optional<std::string> interface = "vesk.Peer";
  std::optional<std::string> member;
  std::optional<std::string> signature;
  std::optional<std::uint32_t> reply_serial;
  std::optional<std::uint32_t> descriptors;
  std::string extra_fields;  // appended to the header fields as they are
  std::string body;

  [[nodiscard]] std::string bytes() const;
};

// The words of a request or a reply of a service: 32-bit values, texts of UTF-16, references.
class Words {
 public:
  Words& i32(std::int32_t value);
  Words& i64(std::int64_t value);
  Words& text(std::string_view ascii);
  Words& endpoint(std::int32_t index);

  [[nodiscard]] const std::string& bytes() const { return m_bytes; }

 private:
  std::string m_bytes;
};

// A message that came in, as far as a hostile peer cares.
struct Received {
  std::uint8_t type = 0;
  std::uint8_t flags = 0;
  std::uint32_t serial = 0;
  std::uint32_t reply_serial = 0;
  std::string member;
  std::string body;
};

// One end of a connection, blocking with a limit. What it cannot send because the other side has hung up is not sent.
class Line {
 public:
  explicit Line(vesk::UniqueFd socket) : m_socket(std::move(socket)) {}

  [[nodiscard]] int descriptor() const { return m_socket.get(); }
  void close() { m_socket.reset(); }

  // False when the other side hung up or does not read any more.
  bool send(std::string_view bytes, const std::vector<int>& descriptors = {});

  // Whether the other side ends the connection within the limit; what it sends is thrown away.
  bool is_dropped(int limit_ms);

  // Reads the other side's part of the handshake.
  bool finish_handshake(int limit_ms);

  // The next message, after that; none at the end of the connection or of the limit.
  std::optional<Received> receive(int limit_ms);

  // Descriptors that came with what was received.
  std::vector<vesk::UniqueFd>& received_descriptors() { return m_descriptors; }

 private:
  bool read_more(int limit_ms);

  vesk::UniqueFd m_socket;
  std::string m_input;
  bool m_in_handshake = true;
  std::vector<vesk::UniqueFd> m_descriptors;
};

// The object path of a service.
std::string path_of(const std::string& service);

}  // namespace orvel::hostile
