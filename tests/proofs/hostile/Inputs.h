// The inputs: what hostile clients do to a device and hostile services to their clients, each under a name of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/BusMessage.h"
#include "support/Services.h"

namespace orvel::hostile {

using test::BusLine;
using test::BusMessage;

constexpr int kLimitMs = 500;              // of every call to a service
constexpr int kPatienceMs = 2 * kLimitMs;  // for what the device does

// What the other side must not have done; the text says what it did.
struct Broken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Where the device serves its page, and what it shows it for.
struct Page {
  std::uint16_t port = 0;
  std::string token;
};

// The connections of one input to the device. They stay open until it ends, so that others are served beside them.
class Attack {
 public:
  BusLine& keep(BusLine line) { return m_lines.emplace_back(std::move(line)); }
  BusLine& connect(const std::string& service);  // behind the handshake
  BusLine& open(const std::string& service);     // has named the service too
  BusLine& last() { return m_lines.back(); }
  void close() { m_lines.clear(); }

  Page page;

 private:
  std::deque<BusLine> m_lines;
};

// A hostile service with one client.
class Visit {
 public:
  // `waits` is true while the client has nothing more to expect.
  Visit(vesk::UniqueFd socket, std::atomic<bool>& waits) : line(std::move(socket)), m_waits(waits) {}

  // The serial of the next call; none when the client has gone.
  std::optional<std::uint32_t> next_call();
  // Greets the client and answers every call as a good service would, until it hangs up. When a call has brought a
  // callback channel, calls `act` with it.
  void serve_well(const std::function<void(Visit&, BusLine& channel)>& act);

  BusLine line;

 private:
  std::atomic<bool>& m_waits;
};

// What an input must lead to, apart from harm to no other process.
enum Outcome {
  kRefused,  // the device ends the connection; the client does not learn the name of the service
  kTaken,    // the connection goes on; the client learns the name
};

// One of the functions is there.
struct Input {
  std::string name;
  std::function<void(Attack&)> at_device;
  std::function<void(Visit&)> at_client = nullptr;
  Outcome outcome = kTaken;  // of a client
};
using Inputs = std::vector<Input>;

void add_requests(Inputs& inputs);  // what the connection takes, and a service of the device does not
void add_messages(Inputs& inputs);  // a table of bytes, for either side
void add_pages(Inputs& inputs);     // to the port of the page
void add_channels(Inputs& inputs);  // what becomes of callback channels

struct Answer {
  std::int32_t status = -1;    // of the runtime
  std::int32_t exception = 1;  // of the service: 0 is success, below 0 a refusal
  std::string bytes;           // with the exception
};
// The answer to the call with this serial; throws where there is none.
Answer expect_answer(BusLine& line, std::uint32_t serial);
void expect_dropped(BusLine& line);
// Asks the power manager, to which the line leads, whether the screen is on, and it is.
void expect_served(BusLine& line, std::uint32_t serial = 2);

// A call to a service of the device, whose arguments, as wire() reads them, stand behind the header of every request.
// With endpoints it has the callback channel too.
BusMessage call_to(test::Service service, std::uint32_t serial, std::uint32_t code, const std::string& arguments = "",
                   const test::Endpoints& endpoints = std::nullopt);
// Registers endpoints for the setting "hostile".
BusMessage registration(std::uint32_t serial = 2, const std::vector<std::uint64_t>& endpoints = {1});
// The setting gets a value that it never had, of which the device informs by a call that has to be answered.
void change_setting();
// The answer of a service whose name is "Rogue", and its call of the client's endpoint 1.
BusMessage name_answer(std::uint32_t to);
BusMessage setting_news(bool answered = true);

// Sends a call that brings the callback channel along; returns this side's end of it, greeted or silent.
BusLine send_with_channel(BusLine& line, const BusMessage& call, bool greeted = true);

}  // namespace orvel::hostile
