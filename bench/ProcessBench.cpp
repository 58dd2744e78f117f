// What a call between two processes costs on the host runtime, and what starting a client costs. Needs a device:
// scripts/bench runs it inside `orvel-sim run`.
#include <benchmark/benchmark.h>
#include <orvel/OrvelDelegateClient.h>
#include <sched.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vesk/vesk.h>

#include <array>
#include <chrono>
#include <exception>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "EchoServer.h"
#include "Table.h"

namespace bench {
namespace {

using orvel::service_apis::OrvelDelegateClient;

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

// Runs a round trip until the benchmark has enough; `trip` returns false on failure. The first trip is not measured: it waits
// for the server to come up and for the two to authenticate each other.
template <typename Function>
void measure(benchmark::State& state, const Function& trip) {
  bool good = trip();
  for (auto _ : state) good = good && trip();
  if (!good) state.SkipWithError("a round trip failed");
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

void overHostRuntime(benchmark::State& state, std::size_t size) {
  void* runtime = nullptr;
  if (vesk_get_runtime(&runtime) != 0) return state.SkipWithError("no device");
  vesk_handle handle = bindEcho(runtime);
  // As in a client: the run loop watches the connection while another thread calls.
  std::thread loop([runtime] { vesk_run_loop(runtime); });
  vesk_payload* request = vesk_payload_alloc();
  for (std::size_t written = 0; written < size; written += sizeof(std::int64_t)) vesk_write_i64(request, 'x');
  measure(state, [&] {
    vesk_buffer* reply = vesk_buffer_alloc();
    const bool good = vesk_call(runtime, &handle, kEchoCode, request, reply) == 0 && vesk_read_i64(reply) == 'x';
    vesk_reply_done(runtime, reply);
    vesk_buffer_free(reply);
    return good;
  });
  vesk_payload_free(request);
  vesk_service_unbind(runtime, &handle);
  vesk_shutdown(runtime);
  loop.join();
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
  benchmark::RegisterBenchmark("initialize", initialize)->UseManualTime();
  rows.push_back({"initialize()", "initialize", "", Quantity::kMilliseconds, "under 20 ms"});
  return runTable(argc, argv, rows);
}
