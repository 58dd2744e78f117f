#include "races/Exits.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

#include "races/FakeDevice.h"
#include "races/Operations.h"
#include "races/Watchdog.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it to the user

// A process may end between the end of a run-loop thread and its join, which ThreadSanitizer takes for a leak.
extern "C" __attribute__((visibility("default"))) const char* tsanDefaultOptions() __asm__("__tsan_default_options");
extern "C" const char* tsanDefaultOptions() {
  return "report_thread_leaks=0";
}

namespace orvel::races {
namespace {

constexpr int kStatus = 3;

constexpr const char* kNames[kExitCases] = {
    "exit() in main while a callback runs",
    "exit() in a callback",
    "exit() in a callback while main shuts down",
    "_exit() in a callback",
    "quick_exit() in a callback",
    "exit() while threads use the client",
    "exit() while a start waits for a service",
    "static objects, older and younger, use the client while they end",
};

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
void in_callback(FakeDevice& device, const std::function<void()>& step) {
  static auto& entered = *new std::promise<void>;
  device.vesk().post([step] {
    entered.set_value();
    step();
  });
  entered.get_future().wait();
}

[[noreturn]] void wait_for_the_end() {
  for (;;) pause();
}

}  // namespace

void end_process(int exit_case, std::uint64_t seed) {
  static auto& device = *new FakeDevice(seed);  // as long as the process: so are the threads
  device.serve();
  if (exit_case == 7) static const LateUser older;
  Client& client = Client::getClient();
  if (exit_case == 6) {
    device.vesk().hold_binds("com.quarlo.client.metrics.tarsel");
    std::thread([&client] { client.initialize(); }).detach();
    while (device.vesk().bindings().size() < 5) std::this_thread::yield();
    std::exit(kStatus);
  }
  if (!client.initialize()) std::abort();
  const auto ask = [&client] {
    for (int n = 0; n < 200; ++n) client.getDeviceName();
  };
  switch (exit_case) {
    case 0:
      in_callback(device, ask);
      std::exit(kStatus);
    case 1:
      in_callback(device, [] { std::exit(kStatus); });
      wait_for_the_end();
    case 2:
      in_callback(device, [] {
        while (device.vesk().uses("vesk_shutdown") == 0) std::this_thread::yield();
        std::exit(kStatus);
      });
      client.shutdown();
      wait_for_the_end();
    case 3:
      in_callback(device, [] { _exit(kStatus); });
      wait_for_the_end();
    case 4:
      in_callback(device, [] { std::quick_exit(kStatus); });
      wait_for_the_end();
    case 5: {
      static std::atomic<int> begun{0};
      for (int thread = 0; thread < 4; ++thread) {
        std::thread([&client, own_seed = seed + static_cast<std::uint64_t>(thread)] {
          Random random(own_seed);
          for (;; ++begun) run_one(client, random);
        }).detach();
      }
      while (begun < 100) std::this_thread::yield();
      std::exit(kStatus);
    }
    default:
      static const LateUser younger;
      ask();
      std::exit(kStatus);
  }
}

bool child_ends_well(int exit_case, std::uint64_t seed) {
  const Watchdog::Step step(kNames[exit_case]);
  std::string program = "/proc/self/exe";
  std::string which = "--exit-case=" + std::to_string(exit_case);
  std::string seed_option = "--seed=" + std::to_string(seed);
  char* const words[] = {program.data(), which.data(), seed_option.data(), nullptr};
  pid_t child = 0;
  int status = 0;
  if (posix_spawn(&child, program.c_str(), nullptr, nullptr, words, environ) != 0) std::abort();
  while (waitpid(child, &status, 0) != child) {
  }
  const bool well = WIFEXITED(status) && WEXITSTATUS(status) == kStatus;
  if (!well)
    std::printf("broken: %s: status %#x; --exit-case %d\n", kNames[exit_case], static_cast<unsigned>(status),
                exit_case);
  return well;
}

}  // namespace orvel::races
