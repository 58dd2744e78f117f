#include "races/Exits.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <thread>

#include "races/Operations.h"
#include "races/RandomDevice.h"

// A process may end between the end of a run-loop thread and its join, which ThreadSanitizer takes for a leak.
extern "C" __attribute__((visibility("default"))) const char* tsanDefaultOptions() __asm__("__tsan_default_options");
extern "C" const char* tsanDefaultOptions() {
  return "report_thread_leaks=0";
}

namespace orvel::races {

const std::array<const char*, 8> kExits = {
    "exit-while-a-callback-runs", "exit-in-a-callback",           "exit-in-a-callback-while-main-shuts-down",
    "_exit-in-a-callback",        "quick_exit-in-a-callback",     "exit-while-threads-use-the-client",
    "exit-while-a-start-waits",   "static-objects-use-the-client"};

namespace {

// Uses the client when it is destroyed.
struct LateUser {
  ~LateUser() {
    Client& client = Client::getClient();
    client.getDeviceName();
    client.shutdown();
    client.registerForTimeSync([](long long, long long) {});
  }
};

// Runs `step` in a callback and waits until it has begun.
void in_callback(RandomDevice& device, const std::function<void()>& step) {
  static auto& entered = *new std::promise<void>;
  device.m_vesk.post([step] {
    entered.set_value();
    step();
  });
  entered.get_future().wait();
}

[[noreturn]] void wait_for_the_end() {
  for (;;) pause();
}

}  // namespace

void end_process(std::size_t exit, std::uint64_t seed) {
  static auto& device = *new RandomDevice(seed);  // as long as the process: so are the threads
  if (exit == 7) static const LateUser older;
  Client& client = Client::getClient();
  if (exit == 6) {
    device.m_vesk.hold_binds(test::kServices[test::kMetrics]);
    std::thread([&client] { client.initialize(); }).detach();
    while (device.m_vesk.bindings().size() < test::kMetrics) std::this_thread::yield();
    std::exit(kExitStatus);
  }
  if (!client.initialize()) std::abort();
  const auto ask = [&client] {
    for (int n = 0; n < 200; ++n) client.getDeviceName();
  };
  switch (exit) {
    case 0:
      in_callback(device, ask);
      std::exit(kExitStatus);
    case 1:
      in_callback(device, [] { std::exit(kExitStatus); });
      wait_for_the_end();
    case 2:
      in_callback(device, [] {
        while (device.m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
        std::exit(kExitStatus);
      });
      client.shutdown();
      wait_for_the_end();
    case 3:
      in_callback(device, [] { _exit(kExitStatus); });
      wait_for_the_end();
    case 4:
      in_callback(device, [] { std::quick_exit(kExitStatus); });
      wait_for_the_end();
    case 5: {
      static std::atomic<int> begun{0};
      for (std::uint64_t thread = 0; thread < 4; ++thread) {
        std::thread([&client, random = Random(seed + thread)]() mutable {
          for (;; ++begun) make_call(client, random, Answers::kOfTable);
        }).detach();
      }
      while (begun < 100) std::this_thread::yield();
      std::exit(kExitStatus);
    }
    default:
      static const LateUser younger;
      ask();
      std::exit(kExitStatus);
  }
}

}  // namespace orvel::races
