// The inputs: what hostile clients do to a device and hostile services to their clients, each under a name of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/BusMessage.h"
#include "support/Methods.h"

namespace orvel::hostile {

using test::BusBody;
using test::BusLine;
using test::BusMessage;
using test::BusReceived;
using test::Bytes;
using test::view_of;

constexpr std::size_t kMostBytes = std::size_t{8} << 20;  // of one message
constexpr std::uint32_t kEndpointMark = 0x56455350;

// What the other side must not have done; the text says what it did.
struct Broken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// An answer of a service: the status of the runtime, and the bytes of the service.
struct Answer {
  int status;
  std::string bytes;
  [[nodiscard]] std::int32_t word(std::size_t index) const;
};

// The device as its attackers see it, for one input. What they opened stays open until the next one, so that the others
// are served beside it.
class Target {
 public:
  Target(std::string directory, int limit_ms, std::uint64_t seed)
      : random(seed), m_directory(std::move(directory)), m_limit_ms(limit_ms) {}

  BusLine& connect(test::Service service = test::kPower);  // says nothing yet
  BusLine& open(test::Service service = test::kPower) { return open(test::kServices.at(service)); }
  BusLine& open(const std::string& name);  // has named the service
  BusLine& keep(BusLine line) { return m_lines.emplace_back(std::move(line)); }

  [[nodiscard]] int limit_ms() const { return m_limit_ms; }

  void close() { m_lines.clear(); }  // all that is still open

  void expect_dropped(BusLine& line) const;
  // The answer to the call with this serial; throws where there is none.
  [[nodiscard]] Answer expect_answer(BusLine& line, std::uint32_t serial) const;

  std::mt19937_64 random;

 private:
  BusLine& connect_to(const std::string& name);

  std::string m_directory;
  int m_limit_ms;
  std::deque<BusLine> m_lines;
};

struct ClientInput {
  std::string name;
  std::function<void(Target&)> run;
};

// A hostile service with one client.
class Visit {
 public:
  // `waits` is true while the client has nothing more to expect.
  Visit(vesk::UniqueFd socket, std::uint64_t seed, std::atomic<bool>& waits)
      : line(std::move(socket)), random(seed), m_waits(waits) {}

  // The next call; none when the client has gone.
  std::optional<BusReceived> next_call();
  // Answers every call as a good service would, until one brings a callback channel, and that one too.
  std::optional<BusLine> wait_for_channel();
  void serve_well();  // until the client hangs up

  BusLine line;
  std::mt19937_64 random;

 private:
  std::atomic<bool>& m_waits;
};

struct ServiceInput {
  std::string name;
  std::function<void(Visit&)> run;
};

std::vector<ClientInput> client_inputs();
std::vector<ClientInput> service_request_inputs();
// `count` is how many inputs are made by chance.
std::vector<ServiceInput> service_inputs(long count);

// The message with another value of one member.
template <typename Member>
BusMessage with(BusMessage message, Member BusMessage::*member, std::decay_t<Member> value) {
  message.*member = std::move(value);
  return message;
}

// A call to a service of the device, whose arguments stand behind the header of every request. With endpoints it has
// the callback channel too.
BusMessage call_to(test::Service service, std::uint32_t serial, std::uint32_t code, const Bytes& arguments = {},
                   const test::Endpoints& endpoints = std::nullopt);

// Sends a call that brings the callback channel along; returns this side's end of it, greeted or silent.
BusLine send_with_channel(BusLine& line, const BusMessage& call, bool greeted = true);

// An error in place of an answer.
BusMessage error_to(std::uint32_t serial);

// Some bytes of `text` changed, removed or doubled.
std::string mutated(std::string text, std::mt19937_64& random);

}  // namespace orvel::hostile
