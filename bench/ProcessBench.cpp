// What a call between two processes costs on the host runtime, and what starting a client, a command or a device costs.
// Needs a device: scripts/bench runs it inside `orvel-sim run`.
#include <benchmark/benchmark.h>
#include <orvel/OrvelDelegateClient.h>
#include <sched.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vesk/vesk.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "EchoServer.h"
#include "Programs.h"
#include "Table.h"
#include "parcel/OrvelSimEventMetadata.h"
#include "parcel/String.h"
#include "services/BroadcastReceiverEndpoint.h"
#include "services/OrvelSimDirectiveCallbackEndpoint.h"
#include "services/OrvelSimEventStatusCallbackEndpoint.h"

namespace bench {
namespace {

using orvel::service_apis::BroadcastReceiverEndpoint;
using orvel::service_apis::Bundle;
using orvel::service_apis::kSuccess;
using orvel::service_apis::OrvelDelegateClient;
using orvel::service_apis::OrvelSimDirective;
using orvel::service_apis::OrvelSimDirectiveCallbackEndpoint;
using orvel::service_apis::OrvelSimEventMetadata;
using orvel::service_apis::OrvelSimEventResult_t;
using orvel::service_apis::OrvelSimEventStatusCallbackEndpoint;
using orvel::service_apis::String;

constexpr std::chrono::seconds kPatience{10};

struct Trip {
  Transport transport;
  std::size_t size;
  bool one_cpu;
};

std::string nameOf(const Trip& trip) {
  static constexpr std::array kNames = {"socket", "sd-bus", "host runtime"};
  return std::string(kNames.at(static_cast<std::size_t>(trip.transport))) + ", " + std::to_string(trip.size) + " B, " +
         (trip.one_cpu ? "one CPU" : "any CPU");
}

cpu_set_t allowedCpus() {
  cpu_set_t set;
  ::sched_getaffinity(0, sizeof(set), &set);
  return set;
}

// Puts the calling thread, the threads that it starts, and a server on one CPU, until it ends.
class Pinning {
 public:
  Pinning(bool one_cpu, pid_t server) : m_server(server) {
    if (!one_cpu) return;
    cpu_set_t one;
    CPU_ZERO(&one);
    for (std::size_t cpu = 0; cpu < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++cpu) {
      if (CPU_ISSET(cpu, &m_allowed)) CPU_SET(cpu, &one);
    }
    apply(one);
  }
  ~Pinning() { apply(m_allowed); }
  Pinning(const Pinning&) = delete;
  Pinning& operator=(const Pinning&) = delete;

 private:
  void apply(const cpu_set_t& set) const {
    for (const pid_t process : {0, m_server}) ::sched_setaffinity(process, sizeof(set), &set);
  }

  pid_t m_server;
  cpu_set_t m_allowed = allowedCpus();
};

// Runs a round trip until the benchmark has enough; `trip` returns false on failure. The first trip is not measured: it
// waits for the server to come up and for the two to authenticate each other.
template <typename Function>
void measure(benchmark::State& state, const Function& trip) {
  bool good = trip();
  for (auto _ : state) good = good && trip();
  if (!good) state.SkipWithError("a round trip failed");
  state.SetItemsProcessed(state.iterations());
}

bool readAll(int socket, char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t got = ::read(socket, bytes, size);
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

void overSocket(benchmark::State& state, std::size_t size, int socket) {
  std::vector<char> bytes(size, 'x');
  measure(state, [&] {
    return ::write(socket, bytes.data(), size) == static_cast<ssize_t>(size) && readAll(socket, bytes.data(), size);
  });
}

bool callOverBus(sd_bus* bus, const std::vector<char>& bytes) {
  sd_bus_message* request = nullptr;
  sd_bus_message* reply = nullptr;
  const void* answer = nullptr;
  std::size_t answer_size = 0;
  int result = sd_bus_message_new_method_call(bus, &request, nullptr, kEchoPath, kEchoInterface, kEchoMethod);
  if (result >= 0) result = sd_bus_message_append_array(request, 'y', bytes.data(), bytes.size());
  if (result >= 0) result = sd_bus_call(bus, request, 0, nullptr, &reply);
  if (result >= 0) result = sd_bus_message_read_array(reply, 'y', &answer, &answer_size);
  sd_bus_message_unref(request);
  sd_bus_message_unref(reply);
  return result >= 0 && answer_size == bytes.size();
}

void overBus(benchmark::State& state, std::size_t size, int socket) {
  const std::vector<char> bytes(size, 'x');
  const int own_socket = ::dup(socket);  // the bus closes its own
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, own_socket, own_socket) < 0 || sd_bus_start(bus) < 0) {
    return state.SkipWithError("cannot start the bus");
  }
  measure(state, [&] { return callOverBus(bus, bytes); });
  sd_bus_close_unref(bus);
}

// Waits for the server's name.
vesk_handle bindEcho(void* runtime) {
  std::promise<vesk_handle> found;
  const auto callback = [](void*, void* context, const char*, vesk_handle handle) {
    static_cast<std::promise<vesk_handle>*>(context)->set_value(handle);
  };
  std::future<vesk_handle> handle = found.get_future();
  if (vesk_service_bind(runtime, kEchoService, callback, &found) != 0 ||
      handle.wait_for(kPatience) != std::future_status::ready) {
    throw std::runtime_error("the echo server does not come up");
  }
  return handle.get();
}

// A client of the host runtime's server. As in any client, the run loop watches the connection while another thread
// calls.
class Client {
 public:
  Client() : m_handle(bindEcho(m_runtime)), m_loop([this] { vesk_run_loop(m_runtime); }) {}
  ~Client() {
    vesk_service_unbind(m_runtime, &m_handle);
    vesk_shutdown(m_runtime);
    m_loop.join();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void publish(const std::string& name, vesk_endpoint* endpoint) {
    if (vesk_service_register(m_runtime, name.c_str(), endpoint) != 0)
      throw std::runtime_error("cannot publish " + name);
  }

  // Sends what `write` writes. Throws when the call fails.
  template <typename Write>
  void ask(EchoCode code, const Write& write) {
    vesk_payload* request = vesk_payload_alloc();
    write(request);
    const bool good = call(code, request, [](vesk_buffer*) { return true; });
    vesk_payload_free(request);
    if (!good) throw std::runtime_error("the server refuses a request");
  }

  // Whether the call succeeds and the reply passes `check`.
  template <typename Check>
  bool call(EchoCode code, vesk_payload* request, const Check& check) {
    vesk_buffer* reply = vesk_buffer_alloc();
    const bool good = vesk_call(m_runtime, &m_handle, code, request, reply) == 0 && check(reply);
    vesk_reply_done(m_runtime, reply);
    vesk_buffer_free(reply);
    return good;
  }

 private:
  static void* getRuntime() {
    void* runtime = nullptr;
    if (vesk_get_runtime(&runtime) != 0) throw std::runtime_error("no device");
    return runtime;
  }

  void* const m_runtime = getRuntime();
  vesk_handle m_handle;
  std::thread m_loop;
};

void overHostRuntime(benchmark::State& state, std::size_t size) {
  Client client;
  vesk_payload* request = vesk_payload_alloc();
  for (std::size_t written = 0; written < size; written += sizeof(std::int64_t)) vesk_write_i64(request, 'x');
  measure(state,
          [&] { return client.call(kEcho, request, [](vesk_buffer* reply) { return vesk_read_i64(reply) == 'x'; }); });
  vesk_payload_free(request);
}

// Fewer than a server takes in all and from one process.
constexpr int kCrowds = 3;
constexpr int kConnectionsOfCrowd = 126;

void besideOthers(benchmark::State& state) try {
  const EchoServer server(Transport::kHostRuntime);
  { const Client first; }  // the server is up
  std::array<std::optional<Crowd>, kCrowds> crowds;
  for (auto& crowd : crowds) crowd.emplace(kConnectionsOfCrowd);
  const Pinning pinning(true, server.pid());
  overHostRuntime(state, 64);
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

void roundTrip(benchmark::State& state, const Trip& trip) try {
  const EchoServer server(trip.transport);
  const Pinning pinning(trip.one_cpu, server.pid());
  switch (trip.transport) {
    case Transport::kSocket:
      return overSocket(state, trip.size, server.socket());
    case Transport::kBus:
      return overBus(state, trip.size, server.socket());
    case Transport::kHostRuntime:
      return overHostRuntime(state, trip.size);
  }
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

// Callbacks that are waited for.
class Arrivals {
 public:
  void note() {
    const std::lock_guard lock(m_mutex);
    ++m_count;
    m_changed.notify_one();
  }

  // Waits for so many since the last time.
  void await(int count) {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, kPatience, [&] { return m_count == count; })) {
      throw std::runtime_error("not every callback was called");
    }
    m_count = 0;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_count = 0;  // guarded by m_mutex
};

// Hears the broadcasts of the server, as a proxy of the library does.
class Listener {
 public:
  explicit Listener(int registrations) {
    for (int n = 0; n < registrations; ++n) {
      const auto endpoint = vesk::make_endpoint<BroadcastReceiverEndpoint>(
          [this](const std::string&, const std::string&, const Bundle& extras) {
            const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
            m_delay = now - std::chrono::nanoseconds(extras.get(kSentAtExtra, 0LL));
            m_arrivals.note();
          });
      m_client.ask(kKeepEndpoint,
                   [&](vesk_payload* request) { vesk_write_endpoint(request, endpoint->get_endpoint()); });
    }
  }

  // Asks for so many broadcasts and waits for their callbacks. Returns how long the last one was on its way.
  std::chrono::nanoseconds request(int count) {
    m_client.ask(kSendBroadcasts, [&](vesk_payload* request) { vesk_write_i32(request, count); });
    m_arrivals.await(count);
    return m_delay;
  }

 private:
  Arrivals m_arrivals;
  std::chrono::nanoseconds m_delay{0};  // read between the arrivals that it is written before
  Client m_client;                      // Last: its thread uses the rest.
};

// Fewer than the host runtime queues for a receiver.
constexpr int kMessagesAtOnce = 500;

void deliverBroadcasts(benchmark::State& state, int registrations) try {
  const EchoServer server(Transport::kHostRuntime);
  Listener listener(registrations);
  listener.request(1);
  for (auto _ : state) listener.request(kMessagesAtOnce);
  state.SetItemsProcessed(kMessagesAtOnce * state.iterations());
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

void delayOfBroadcast(benchmark::State& state) try {
  const EchoServer server(Transport::kHostRuntime);
  Listener listener(1);
  listener.request(1);
  for (auto _ : state) state.SetIterationTime(std::chrono::duration<double>(listener.request(1)).count());
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

// Sends so many events, as a proxy of the library does, and waits for their results.
void sendEvents(benchmark::State& state, int at_once) try {
  const EchoServer server(Transport::kHostRuntime);
  Arrivals results;
  Client client;
  const OrvelSimEventMetadata metadata{"Example.Buttons", "Pressed", "1.0", "", "", "", "", false};
  const auto send = [&] {
    for (int n = 0; n < at_once; ++n) {
      const auto endpoint = vesk::make_endpoint<OrvelSimEventStatusCallbackEndpoint>([&](OrvelSimEventResult_t result) {
        if (result == kSuccess) results.note();
      });
      client.ask(kTakeEvent, [&](vesk_payload* request) {
        metadata.write(request);
        String::write_optional(request, "a payload of no great length");
        vesk_write_endpoint(request, endpoint->get_endpoint());
      });
    }
    results.await(at_once);
  };
  send();
  for (auto _ : state) send();
  state.SetItemsProcessed(at_once * state.iterations());
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

// Publishes so many namespaces, as a proxy of the library does, and has directives sent to them in turn.
void deliverDirectives(benchmark::State& state, int namespaces) try {
  const EchoServer server(Transport::kHostRuntime);
  Arrivals directives;
  Client client;
  for (int n = 0; n < namespaces; ++n) {
    const auto endpoint =
        vesk::make_endpoint<OrvelSimDirectiveCallbackEndpoint>([&](const OrvelSimDirective&) { directives.note(); });
    client.publish(directiveName(n), endpoint->get_endpoint());
  }
  const auto deliver = [&](int count) {
    client.ask(kSendDirectives, [&](vesk_payload* request) {
      for (const int number : {namespaces, count}) vesk_write_i32(request, number);
    });
    directives.await(count);
  };
  deliver(1);
  for (auto _ : state) deliver(kMessagesAtOnce);
  state.SetItemsProcessed(kMessagesAtOnce * state.iterations());
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

void initialize(benchmark::State& state) {
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  for (auto _ : state) {
    const auto began = std::chrono::steady_clock::now();
    const bool good = client.initialize();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
    if (!good || client.getDeviceName().empty()) return state.SkipWithError("no device: run scripts/bench");
    client.shutdown();
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  if (const int status = serveIfAsked(argc, argv); status >= 0) return status;
  std::vector<Row> rows;
  for (const bool one_cpu : {true, false}) {
    for (const std::size_t size : {std::size_t{64}, std::size_t{4096}}) {
      const auto add = [&](Transport transport) {
        const Trip trip{transport, size, one_cpu};
        benchmark::RegisterBenchmark(nameOf(trip).c_str(), [trip](benchmark::State& state) {
          roundTrip(state, trip);
        })->UseRealTime();
        return nameOf(trip);
      };
      const std::string socket = add(Transport::kSocket);
      const std::string bus = add(Transport::kBus);
      const std::string runtime = add(Transport::kHostRuntime);
      rows.push_back({"round trip, " + runtime + " : sd-bus", runtime, bus, Quantity::kMicroseconds, "at most 1.3 x"});
      rows.push_back({"                                      : socket", runtime, socket, Quantity::kMicroseconds, ""});
    }
  }
  benchmark::RegisterBenchmark("beside others", besideOthers)->UseRealTime();
  rows.push_back({"round trip beside " + std::to_string(kCrowds * kConnectionsOfCrowd) + " connections : alone",
                  "beside others", nameOf({Transport::kHostRuntime, 64, true}), Quantity::kMicroseconds,
                  "at most 1.3 x"});
  benchmark::RegisterBenchmark("broadcasts, 1", deliverBroadcasts, 1)->UseRealTime();
  benchmark::RegisterBenchmark("broadcasts, 1000", deliverBroadcasts, 1000)->UseRealTime();
  rows.push_back({"broadcasts to 1,000 registrations : to one", "broadcasts, 1000", "broadcasts, 1",
                  Quantity::kPerSecond, "the same"});
  benchmark::RegisterBenchmark("broadcast", delayOfBroadcast)->UseManualTime();
  rows.push_back({"one-way call to callback : round trip of 64 B", "broadcast",
                  nameOf({Transport::kHostRuntime, 64, false}), Quantity::kMicroseconds, ""});
  benchmark::RegisterBenchmark("events, 1", sendEvents, 1)->UseRealTime();
  benchmark::RegisterBenchmark("events, 100", sendEvents, 100)->UseRealTime();
  for (const auto& [text, name] : {std::pair("one at a time", "events, 1"), {"100 in flight", "events, 100"}}) {
    rows.push_back({std::string("events and results, ") + text + " : round trips", name,
                    nameOf({Transport::kHostRuntime, 64, false}), Quantity::kPerSecond, ""});
  }
  benchmark::RegisterBenchmark("directives, 1", deliverDirectives, 1)->UseRealTime();
  benchmark::RegisterBenchmark("directives, 100", deliverDirectives, 100)->UseRealTime();
  rows.push_back({"directives to 100 namespaces : to one", "directives, 100", "directives, 1", Quantity::kPerSecond,
                  "at least 0.5 x"});
  benchmark::RegisterBenchmark("initialize", initialize)->UseManualTime();
  rows.push_back({"initialize()", "initialize", "", Quantity::kMilliseconds, "under 20 ms"});
  const std::string nothing = "a program that does nothing";
  const auto add_program = [](const std::string& name, const std::vector<std::string>& words) {
    benchmark::RegisterBenchmark(name.c_str(), [words](benchmark::State& state) {
      runProgram(state, words);
    })->UseRealTime();
  };
  add_program(nothing, {"/bin/true"});
  add_program("orvelctl get name", {"orvelctl", "get", "name"});
  add_program("orvel-sim run -- true", {"orvel-sim", "run", "--", "/bin/true"});
  for (const auto& [name, aim] :
       {std::pair("orvelctl get name", "under 30 ms"), {"orvel-sim run -- true", "under 150 ms"}}) {
    rows.push_back({std::string(name) + ", the whole process : true", name, nothing, Quantity::kMilliseconds, aim});
  }
  return runTable(argc, argv, rows);
}
