// The same operations between processes: on the host runtime, against a simulated device whose services are killed, started and
// made to send. Run as: orvel-sim run --isolate -- orvel-races-host
#include <android/log.h>
#include <spawn.h>
#include <sys/wait.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "races/Operations.h"
#include "races/Watchdog.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it to the user

namespace {

using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using Words = std::vector<std::string>;

// Gives the device an order and waits until it has obeyed.
void order(Words words) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "orvel-sim";
  words.insert(words.begin(), program);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments.data(), environ) != 0) std::abort();
  int status = 0;
  while (waitpid(child, &status, 0) != child) {
  }
}

// What happens to the device until `stop`; every service runs when it returns. How many it killed.
long act(std::uint64_t seed, const std::atomic<bool>& stop) {
  static const char* const kServices[] = {"delegate", "power", "events", "coordinator", "packages", "connectivity"};
  Random random(seed);
  long kills = 0;
  while (!stop) {
    const Watchdog::Step step("an order to the device");
    const char* const service = kServices[random() % std::size(kServices)];
    switch (random() % 6) {
      case 0:
        order({"kill", service});
        order({"screen", "off"});
        order({"restart", service});
        ++kills;
        break;
      case 1:
        order({"set", "name", random() % 2 == 0 ? "a name" : ""});
        break;
      case 2:
        order({"maro", random() % 2 == 0 ? "connected" : "disconnected"});
        break;
      case 3:
        order({"screen", random() % 2 == 0 ? "on" : "off"});
        break;
      case 4:
        order({"network", random() % 2 == 0 ? "connected" : "disconnected"});
        break;
      default:
        order({"directive", "N1", "text"});
        break;
    }
  }
  return kills;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Races of the client library against a device of other processes.");
  std::uint64_t seed = 1;
  long count = 3000;
  int threads = 8;
  app.add_option("--seed", seed, "What everything random comes from")->capture_default_str();
  app.add_option("--count", count, "Operations")->capture_default_str();
  app.add_option("--threads", threads, "Threads that share them")->check(CLI::Range(1, 64))->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});

  long kills = 0;
  {
    const Watchdog watchdog(std::chrono::seconds(120), "--seed " + std::to_string(seed));
    std::atomic<bool> stop{false};
    order({"set", "name", "a name"});
    std::thread device([&] { kills = act(seed, stop); });
    Client& client = Client::getClient();
    require(client.initialize(), "the client starts");
    run_operations(client, seed, threads, count);
    stop = true;
    device.join();
    order({"set", "name", "a name"});
    client.shutdown();
    require(client.initialize(), "the client starts again after it all");
    require(client.getDeviceName() == "a name", "the client works after it all");
    client.shutdown();
  }
  std::printf(
      "orvel-races-host: seed %llu, %ld operations on %d threads, %ld kills, %ld notifications heard; %d promises "
      "broken\n",
      static_cast<unsigned long long>(seed), count, threads, kills, heard(), broken());
  return broken() == 0 ? 0 : 1;
}
