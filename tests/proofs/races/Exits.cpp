#include "races/Exits.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <thread>

#include "races/Operations.h"

// A process may end between the end of a run-loop thread and its join, which ThreadSanitizer takes for a leak.
extern "C" __attribute__((visibility("default"))) const char* tsanDefaultOptions() __asm__("__tsan_default_options");
extern "C" const char* tsanDefaultOptions() {
  return "report_thread_leaks=0";
}

namespace orvel::races {
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

// Starts the client, runs `step` in a callback, and returns when it has begun.
void in_callback(RandomDevice& device, const std::function<void()>& step) {
  static auto& entered = *new std::promise<void>;
  if (!Client::getClient().initialize()) std::abort();
  device.m_vesk.post([step] {
    entered.set_value();
    step();
  });
  entered.get_future().wait();
}

template <void (*kExit)(int)>
void exit_in_callback(RandomDevice& device) {
  in_callback(device, [] { kExit(kExitStatus); });
  for (;;) pause();
}

void exit_during_callback(RandomDevice& device) {
  in_callback(device, [] {
    for (int n = 0; n < 200; ++n) Client::getClient().getDeviceName();
  });
  std::exit(kExitStatus);
}

void exit_in_callback_during_shutdown(RandomDevice& device) {
  in_callback(device, [&device] {
    while (device.m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
    std::exit(kExitStatus);
  });
  Client::getClient().shutdown();
  for (;;) pause();
}

void exit_during_calls(RandomDevice&) {
  static std::atomic<int> begun{0};
  Client& client = Client::getClient();
  if (!client.initialize()) std::abort();
  for (std::uint64_t seed = 0; seed < 4; ++seed) {
    std::thread([&client, random = Random(seed)]() mutable {
      for (;; ++begun) make_call(client, random, Answers::kOfTable);
    }).detach();
  }
  while (begun < 100) std::this_thread::yield();
  std::exit(kExitStatus);
}

void exit_during_start(RandomDevice& device) {
  device.m_vesk.hold_binds(test::kServices[test::kMetrics]);
  std::thread([] { Client::getClient().initialize(); }).detach();
  while (device.m_vesk.bindings().size() < test::kMetrics) std::this_thread::yield();
  std::exit(kExitStatus);
}

void exit_with_static_objects(RandomDevice&) {
  static const LateUser ends_after_the_client;
  Client& client = Client::getClient();
  static const LateUser ends_before_the_client;
  if (!client.initialize()) std::abort();
  std::exit(kExitStatus);
}

}  // namespace

const std::array<Exit, 8> kExits = {{
    {"exit-in-a-callback", exit_in_callback<std::exit>},
    {"_exit-in-a-callback", exit_in_callback<_exit>},
    {"quick_exit-in-a-callback", exit_in_callback<std::quick_exit>},
    {"exit-while-a-callback-runs", exit_during_callback},
    {"exit-in-a-callback-while-main-shuts-down", exit_in_callback_during_shutdown},
    {"exit-while-threads-use-the-client", exit_during_calls},
    {"exit-while-a-start-waits", exit_during_start},
    {"exit-with-static-objects-that-use-the-client", exit_with_static_objects},
}};

}  // namespace orvel::races
