// All public methods on eight threads while services die and come back; every way in which a process may end. Run under
// ThreadSanitizer, whose reports make it fail too.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>

#include "races/Caller.h"
#include "races/RandomDevice.h"
#include "support/LogRecorder.h"
#include "support/Process.h"

// A process may end between the end of a run-loop thread and its join, which ThreadSanitizer takes for a leak.
extern "C" __attribute__((visibility("default"))) const char* tsanDefaultOptions() __asm__("__tsan_default_options");
extern "C" const char* tsanDefaultOptions() {
  return "report_thread_leaks=0";
}

namespace {

using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using namespace orvel::test;   // NOLINT(google-build-using-namespace)

// Registrations are for ever, and each death renews them all.
constexpr long kCallsPerRound = 5000;

struct Counts {
  long kills = 0;
  long notifications = 0;
};

Counts call_and_kill(const Runner& runner) {
  Client& client = Client::getClient();
  Counts counts;
  for (long made = 0; made < runner.count(); made += kCallsPerRound) {
    const std::uint64_t seed = runner.seed() + static_cast<std::uint64_t>(made / kCallsPerRound);
    begin("a round of calls, seed " + std::to_string(seed));
    Caller caller(client, /*by_table=*/true);
    RandomDevice device(seed);
    if (runner.canary()) device.plant_fault();
    client.initialize();
    device.start_acting();
    caller.make_calls(seed, 8, std::min(kCallsPerRound, runner.count() - made));
    device.stop();
    client.shutdown();
    require(device.left(/*forgotten=*/true));
    counts.kills += device.kills();
    counts.notifications += caller.notifications();
  }
  return counts;
}

constexpr int kExitStatus = 3;
constexpr int kStillRuns = 4;

// The device of a process that ends. It lives as long as the process.
RandomDevice* g_device = nullptr;

// Runs behind the client's destructor.
void expect_stopped() {
  if (g_device->m_vesk.uses("vesk_shutdown") == 0) _exit(kStillRuns);
}

// Starts the client, with a callback whose captured object uses the client when it ends.
Client& start_client() {
  static Client& client = Client::getClient();
  if (!client.initialize()) std::abort();
  const std::shared_ptr<void> captured(&client, [](void*) { client.shutdown(); });
  client.registerForTimeSync([captured](long long, long long) {});
  return client;
}

// Uses the client when it is destroyed.
struct LateUser {
  ~LateUser() {
    Client& client = Client::getClient();
    client.getDeviceName();
    client.shutdown();
    client.registerForTimeSync([](long long, long long) {});
  }
};

// Starts the client, runs `step` in a callback, and returns when it has begun.
void in_callback(const std::function<void()>& step) {
  static auto& entered = *new std::promise<void>;
  start_client();
  g_device->m_vesk.post([step] {
    entered.set_value();
    step();
  });
  entered.get_future().wait();
}

template <void (*kExit)(int)>
void exit_in_callback() {
  in_callback([] { kExit(kExitStatus); });
  for (;;) pause();
}

void exit_during_callback() {
  in_callback([] {
    for (int n = 0; n < 200; ++n) Client::getClient().getDeviceName();
  });
  std::exit(kExitStatus);
}

void exit_in_callback_during_shutdown() {
  in_callback([] {
    while (g_device->m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
    std::exit(kExitStatus);
  });
  Client::getClient().shutdown();
  for (;;) pause();
}

void exit_during_calls() {
  static std::atomic<int> begun{0};
  static Caller caller(start_client(), /*by_table=*/true);
  for (std::uint64_t seed = 0; seed < 4; ++seed) {
    std::thread([random = Random(seed)]() mutable {
      for (;; ++begun) caller.make_call(random);
    }).detach();
  }
  while (begun < 100) std::this_thread::yield();
  std::exit(kExitStatus);
}

void exit_during_start() {
  g_device->m_vesk.hold_binds(kServices[kMetrics]);
  std::thread([] { Client::getClient().initialize(); }).detach();
  while (g_device->m_vesk.bindings().size() < kMetrics) std::this_thread::yield();
  std::exit(kExitStatus);
}

void exit_with_static_objects() {
  static const LateUser ends_after_the_client;
  start_client();
  static const LateUser ends_before_the_client;
  std::exit(kExitStatus);
}

// How a process ends under a running client, which was not created yet.
constexpr struct Exit {
  const char* name;
  void (*end)();
} kExits[] = {
    {"exit-in-a-callback", exit_in_callback<std::exit>},
    {"_exit-in-a-callback", exit_in_callback<_exit>},
    {"quick_exit-in-a-callback", exit_in_callback<std::quick_exit>},
    {"exit-while-a-callback-runs", exit_during_callback},
    {"exit-in-a-callback-while-main-shuts-down", exit_in_callback_during_shutdown},
    {"exit-while-threads-use-the-client", exit_during_calls},
    {"exit-while-a-start-waits", exit_during_start},
    {"exit-with-static-objects-that-use-the-client", exit_with_static_objects},
};

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-races", "Races of the client library; --count calls on eight threads", 20'000);
  std::size_t exit = std::size(kExits);
  Counts counts;
  runner.options().add_option("--exit", exit, "be the process that ends in this way")->group("");
  runner.add("calls", [&] { counts = call_and_kill(runner); });
  for (const Exit& each : kExits) {
    runner.add(std::string("ends/") + each.name, [&each] {
      const Result ended = run({"/proc/self/exe", "--exit", std::to_string(&each - kExits)});
      require(ended.status == kExitStatus, "it ends with status " + std::to_string(ended.status) + ": " + ended.error);
    });
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  discard_log();
  if (exit < std::size(kExits)) {
    g_device = new RandomDevice(runner.seed());
    std::atexit(expect_stopped);
    kExits[exit].end();
  }
  return runner.run([&] {
    return std::to_string(runner.count()) + " calls, " + std::to_string(counts.kills) + " kills, " +
           std::to_string(counts.notifications) + " notifications";
  });
}
