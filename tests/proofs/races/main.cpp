// All public methods on eight threads while services die and come back; every way in which a process may end. Run under
// ThreadSanitizer, whose reports make it fail too.
#include <android/log.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "races/Exits.h"
#include "races/Operations.h"
#include "support/Process.h"
#include "support/Runner.h"

namespace {

using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using orvel::test::Live;
using orvel::test::require;
using orvel::test::Runner;

// Registrations are for ever, and each death renews them all.
constexpr long kCallsPerRound = 5000;

// How many services died.
long call_and_kill(const Runner& runner, int threads) {
  Client& client = Client::getClient();
  long kills = 0;
  for (long made = 0; made < runner.count(); made += kCallsPerRound) {
    const std::uint64_t seed = runner.seed() + static_cast<std::uint64_t>(made / kCallsPerRound);
    orvel::test::begin("a round of calls, seed " + std::to_string(seed));
    RandomDevice device(seed);
    if (runner.canary()) device.plant_fault();
    client.initialize();
    device.start_acting();
    make_calls(client, seed, threads, std::min(kCallsPerRound, runner.count() - made), Answers::kOfTable);
    device.stop();
    client.shutdown();
    // What is left on purpose: the messages of one method, and the lookup of a handle that could not be linked to its death.
    Live left = device.m_vesk.live();
    left.payloads = left.buffers = left.lookups = 0;
    require(left == Live{}, "a stopped client holds no reference");
    kills += device.kills();
  }
  return kills;
}

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-races", "Races of the client library; --count calls", 20'000);
  int threads = 8;
  std::size_t exit = kExits.size();
  long kills = 0;
  runner.options().add_option("--threads", threads, "that make the calls")->check(CLI::Range(1, 64));
  runner.options().add_option("--exit", exit, "be the process that ends in this way")->group("");
  runner.add("calls", [&] { kills = call_and_kill(runner, threads); });
  for (std::size_t n = 0; n < kExits.size(); ++n) {
    runner.add(std::string("ends/") + kExits.at(n).name, [n] {
      const auto ended = orvel::test::run({"/proc/self/exe", "--exit", std::to_string(n)});
      require(ended.status == kExitStatus, "it ends with status " + std::to_string(ended.status) + ": " + ended.error);
    });
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  // The library formats every line; where it goes is of no interest here.
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  if (exit < kExits.size()) kExits.at(exit).end(*new RandomDevice(runner.seed()));
  return runner.run([&] {
    return std::to_string(runner.count()) + " calls on " + std::to_string(threads) + " threads, " +
           std::to_string(kills) + " kills, " + std::to_string(heard()) + " notifications";
  });
}
