// The connection between two processes, byte by byte, so that any part of a message may be wrong: messages, and one end
// of a socket that carries them. Shares nothing with the host runtime but the owner of a descriptor.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Vesk.h"
#include "vesk/host/Support.h"

namespace orvel::test {

// A client's part of the handshake, all at once, and what a service answers.
extern const std::string kBusHello;
extern const std::string kBusAnswer;

// Values one after the other, each at a multiple of its own size.
class BusBody {
 public:
  BusBody& u32(std::uint32_t value) { return number(value, 4); }
  BusBody& u64(std::uint64_t value) { return number(value, 8); }
  BusBody& text(std::string_view value) { return array(value).raw({"\0", 1}); }  // string or object path
  BusBody& array(std::string_view bytes) { return u32(static_cast<std::uint32_t>(bytes.size())).raw(bytes); }
  BusBody& array(const std::vector<std::uint64_t>& numbers);
  BusBody& raw(std::string_view bytes);
  BusBody& align(std::size_t boundary);

  [[nodiscard]] const std::string& bytes() const { return m_bytes; }

 private:
  BusBody& number(std::uint64_t value, int size);

  std::string m_bytes;
};

enum BusType : std::uint8_t { kBusCall = 1, kBusReturn = 2, kBusError = 3, kBusSignal = 4 };
constexpr std::uint8_t kNoReplyExpected = 1;

// One message. What is not set is left out; the length of the body is by default what it ought to be.
struct BusMessage {
  std::uint8_t type = kBusCall;
  std::uint8_t flags = 0;
  std::uint32_t serial = 1;
  std::optional<std::uint32_t> body_length;
  std::optional<std::string> path;
  std::optional<std::string> interface = "vesk.Peer";
  std::optional<std::string> member;
  std::optional<std::string> error_name;
  std::optional<std::string> signature;
  std::optional<std::uint32_t> reply_serial;
  std::optional<std::string> sender;
  std::optional<std::uint32_t> descriptors;
  std::string body;

  [[nodiscard]] std::string bytes() const;
};

// The numbers of what travels with a call; nothing for one that is of a kind without them.
using Endpoints = std::optional<std::vector<std::uint64_t>>;

inline std::string_view view_of(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The messages of a client: the first one, which names the service, and a call with its code and its bytes. A call with
// endpoints has their numbers, and the descriptor of the callback channel unless the channel is there already.
BusMessage bus_open(const std::string& service);
BusMessage bus_call(const std::string& service, std::uint32_t serial, std::uint32_t code, std::string_view bytes,
                    const Endpoints& endpoints = std::nullopt, bool channel = true);

// The messages of a service: an answer, and on the callback channel a call of an endpoint and its release.
BusMessage bus_answer(std::uint32_t to, std::int32_t status, std::string_view bytes);
BusMessage bus_callback(std::uint32_t serial, std::uint64_t endpoint, std::uint32_t code, std::string_view bytes,
                        bool answered);
BusMessage bus_release(std::uint64_t endpoint, std::uint32_t count);

// A message that came in.
struct BusReceived {
  std::uint8_t type = 0;
  std::uint32_t serial = 0;
  std::uint32_t reply_serial = 0;
  std::string member;
  std::string body;
};

// Two connected sockets.
std::pair<vesk::UniqueFd, vesk::UniqueFd> socket_pair(int type);

// One end of a connection. Waits for the other side within limits.
class BusLine {
 public:
  explicit BusLine(vesk::UniqueFd socket) : m_socket(std::move(socket)) {}

  // Connects to the socket of that name. Throws std::system_error.
  static BusLine to(const std::string& file);

  [[nodiscard]] int descriptor() const { return m_socket.get(); }
  void close() { m_socket.reset(); }

  // False when the other side hung up or stopped reading. `piece` is the most that one write takes.
  bool send(std::string_view bytes, const std::vector<int>& descriptors = {}, std::size_t piece = SIZE_MAX);

  // Whether the other side ends the connection within the limit; what it sends is thrown away.
  bool is_dropped(int limit_ms);

  // Reads the other side's part of the handshake.
  bool finish_handshake(int limit_ms);

  // The next message behind the handshake; none at the end of the connection or of the limit.
  std::optional<BusReceived> receive(int limit_ms);

  // Descriptors that came with what was received.
  std::vector<vesk::UniqueFd>& received_descriptors() { return m_descriptors; }

 private:
  bool read_more(int limit_ms);  // false at the end of the connection or of the limit

  vesk::UniqueFd m_socket;
  std::string m_input;
  bool m_in_handshake = true;
  bool m_has_ended = false;
  std::vector<vesk::UniqueFd> m_descriptors;
};

}  // namespace orvel::test
