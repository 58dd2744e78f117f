#include "Inputs.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace orvel::hostile {

using namespace std::string_literals;

std::int32_t Answer::word(std::size_t index) const {
  std::int32_t value = 0;
  if (bytes.size() < (index + 1) * sizeof(value)) {
    throw Broken("an answer of " + std::to_string(bytes.size()) + " bytes");
  }
  std::memcpy(&value, bytes.data() + index * sizeof(value), sizeof(value));
  return value;
}

// ---- Target ----

BusLine& Target::connect_to(const std::string& name) {
  return keep(BusLine::to(m_directory + '/' + name));
}

BusLine& Target::connect(test::Service service) {
  return connect_to(test::kServices.at(service));
}

BusLine& Target::open(const std::string& name) {
  BusLine& line = connect_to(name);
  line.send(test::kBusHello + test::bus_open(name).bytes());
  // Descriptors belong to messages: what comes with the handshake ends the connection.
  if (!line.finish_handshake(m_limit_ms)) throw Broken("no answer to a good handshake");
  return line;
}

void Target::expect_dropped(BusLine& line) const {
  if (!line.is_dropped(m_limit_ms)) throw Broken("the connection was not closed");
}

Answer Target::expect_answer(BusLine& line, std::uint32_t serial) const {
  while (const auto message = line.receive(m_limit_ms)) {
    if (message->type != test::kBusReturn || message->reply_serial != serial) continue;
    std::int32_t head[2] = {};
    if (message->body.size() < sizeof(head)) break;
    std::memcpy(head, message->body.data(), sizeof(head));
    return {head[0], message->body.substr(sizeof(head))};
  }
  throw Broken("no answer");
}

// ---- Visit ----

constexpr int kVisitMs = 5000;  // longer than any client of these tests waits

std::optional<BusReceived> Visit::next_call() {
  m_waits = true;
  auto message = line.receive(kVisitMs);
  while (message && (message->type != test::kBusCall || message->member != "Call")) message = line.receive(kVisitMs);
  m_waits = false;
  return message;
}

std::optional<BusLine> Visit::wait_for_channel() {
  while (const auto call = next_call()) {
    auto& descriptors = line.received_descriptors();
    const Bytes result = descriptors.empty() ? Bytes().i32(0).utf16("Rogue") : Bytes().i32(0);
    std::optional<BusLine> channel;
    if (!descriptors.empty()) {
      channel.emplace(std::move(descriptors.front()));
      descriptors.clear();
      channel->send(test::kBusAnswer);
    }
    line.send(test::bus_answer(call->serial, 0, view_of(result)).bytes());
    if (channel) return channel;
  }
  return std::nullopt;
}

void Visit::serve_well() {
  const Bytes result = Bytes().i32(0).utf16("Rogue");
  while (const auto call = next_call()) line.send(test::bus_answer(call->serial, 0, view_of(result)).bytes());
}

// ---- Messages ----

BusMessage call_to(test::Service service, std::uint32_t serial, std::uint32_t code, const Bytes& arguments,
                   const test::Endpoints& endpoints) {
  return test::bus_call(test::kServices.at(service), serial, code,
                        view_of(test::request(test::kInterfaces.at(service), arguments)), endpoints);
}

BusLine send_with_channel(BusLine& line, const BusMessage& call, bool greeted) {
  auto [mine, theirs] = test::socket_pair(SOCK_STREAM);
  BusLine channel(std::move(mine));
  if (greeted) channel.send(test::kBusHello);
  line.send(call.bytes(), {theirs.get()});
  return channel;
}

BusMessage error_to(std::uint32_t serial) {
  BusMessage error = test::bus_answer(serial, 0, "");
  error.type = test::kBusError;
  error.extra_fields = "\4\1s\0\3\0\0\0a.b\0"s;
  return error;
}

std::string mutated(std::string text, std::mt19937_64& random) {
  const auto below = [&](std::size_t limit) {
    return static_cast<std::size_t>(random() % std::max<std::size_t>(limit, 1));
  };
  for (std::size_t changes = 1 + below(6); changes > 0 && !text.empty(); --changes) {
    const std::size_t at = below(text.size());
    const std::size_t kind = below(3);
    if (kind == 0) text[at] = static_cast<char>(random());
    if (kind == 1) text.erase(at, 1 + below(8));
    if (kind == 2) text.insert(at, text.substr(below(text.size()), 1 + below(16)));
  }
  return text;
}

}  // namespace orvel::hostile
