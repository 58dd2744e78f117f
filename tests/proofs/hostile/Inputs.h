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
#include <vector>

#include "RawMessage.h"

namespace orvel::hostile {

// A service of the device, by the names that clients use.
struct ServiceName {
  const char* id;
  const char* name;
  const char* descriptor;
};
extern const ServiceName kDelegate, kPower;

// What the other side must not have done; the text says what it did.
struct Broken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// An answer of a service: what the runtime says, and the bytes of the service.
struct Answer {
  int status;
  std::string bytes;
  [[nodiscard]] std::int32_t word(std::size_t index) const;
};

// The device as its attackers see it, for one input. What they opened stays open until the next one, so that the others are
// served beside it.
class Target {
 public:
  Target(std::string directory, int limit_ms, std::uint64_t seed)
      : random(seed), m_directory(std::move(directory)), m_limit_ms(limit_ms) {}

  Line& connect(const ServiceName& service = kPower);  // says nothing yet
  Line& open(const ServiceName& service = kPower);     // has named the service
  Line& keep(Line line) { return m_lines.emplace_back(std::move(line)); }

  [[nodiscard]] int limit_ms() const { return m_limit_ms; }
  [[nodiscard]] const std::string& directory() const { return m_directory; }

  // All that is still open.
  void close() { m_lines.clear(); }

  void expect_dropped(Line& line) const;
  // The answer to the call with this serial; throws where there is none.
  Answer expect_answer(Line& line, std::uint32_t serial) const;

  // Starts another process that attacks as the command line says; gone when this returns.
  std::function<void(const std::string& kind)> run_flood;
  // Changes a setting of the device, which it tells to those who registered for it.
  std::function<void(const std::string& key, const std::string& value)> change_setting;

  std::mt19937_64 random;

 private:
  std::string m_directory;
  int m_limit_ms;
  std::deque<Line> m_lines;
};

struct ClientInput {
  std::string name;
  std::function<void(Target&)> run;
  std::size_t lost_descriptors = 0;  // that sd-bus is known to forget
};

// A hostile service with one client.
class Visit {
 public:
  Visit(vesk::UniqueFd socket, std::uint64_t seed) : line(std::move(socket)), random(seed) {}

  // The next call, past everything else; none when the client has gone.
  std::optional<Received> next_call();
  void answer(const Received& call, std::int32_t status, std::string_view bytes);

  // Answers every call as a good service would, until one brings a callback channel, and that one too.
  std::optional<Line> wait_for_channel();
  // Goes on like that until the client hangs up.
  void serve_well();
  // Or says nothing more until then.
  void serve_nothing();

  Line line;
  std::mt19937_64 random;
  std::atomic<bool> waits{false};  // for the client, with nothing more to do by itself
};

struct ServiceInput {
  std::string name;
  std::function<void(Visit&)> run;
  std::size_t lost_descriptors = 0;  // that sd-bus is known to forget
};

// How many inputs of the kinds that have no end are made.
std::vector<ClientInput> client_inputs(int count);
std::vector<ClientInput> service_request_inputs();
std::vector<ServiceInput> service_inputs(int count);

// A call as clients send it: code and bytes, then, where there are any, the endpoints by number and the channel.
Message call_of(const ServiceName& service, std::uint32_t serial, std::uint32_t code, std::string_view bytes);
Message call_of(const ServiceName& service, std::uint32_t serial, std::uint32_t code, std::string_view bytes,
                const std::vector<std::uint64_t>& endpoints, bool channel);
Message open_of(const ServiceName& service);
Words request_to(const ServiceName& service);  // the header of every request
Message answer_of(std::uint32_t to, std::int32_t status, std::string_view bytes);

// Sends a call that brings the callback channel along; gives this side's end of it, greeted or silent.
Line send_with_channel(Line& line, const Message& call, bool greeted = true);

// Some bytes of `text` changed, removed or doubled.
std::string mutated(std::string text, std::mt19937_64& random);

// Texts that no handshake begins with.
const std::vector<std::pair<const char*, std::string>>& nonsense();

}  // namespace orvel::hostile
