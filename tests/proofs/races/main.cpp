// All public methods on eight threads while services die and come back; starts and stops; every way in which a process may
// end. Run under ThreadSanitizer, whose reports make it fail too.
#include <android/log.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "races/Exits.h"
#include "races/Operations.h"
#include "races/RandomDevice.h"
#include "support/Process.h"
#include "support/Runner.h"

namespace {

using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using orvel::test::FakeVesk;
using orvel::test::Live;
using orvel::test::require;
using orvel::test::Runner;

// Registrations are for ever, and each death renews them all.
constexpr long kCallsPerRound = 5000;

Client& g_client = Client::getClient();
long g_starts = 0;
long g_interrupted = 0;
long g_kills = 0;

// Of what the client got, nothing is left but what it leaves on purpose: the messages of one method, and the lookup of a handle
// that could not be linked to its death.
void require_nothing_left(RandomDevice& device) {
  Live live = device.m_vesk.live();
  live.payloads = live.buffers = live.lookups = 0;
  require(live == Live{}, "a stopped client holds no reference");
}

void call_and_kill(const Runner& runner, int threads) {
  for (long made = 0; made < runner.count(); made += kCallsPerRound) {
    const auto seed = runner.seed() + static_cast<std::uint64_t>(made / kCallsPerRound);
    orvel::test::begin("a round of calls, seed " + std::to_string(seed));
    RandomDevice device(seed);
    if (runner.canary()) device.plant_fault();
    g_client.initialize();
    device.start_acting();
    make_calls(g_client, seed, threads, std::min(kCallsPerRound, runner.count() - made), Answers::kOfTable);
    device.stop();
    g_client.shutdown();
    require_nothing_left(device);
    g_kills += device.kills();
  }
}

// One start and one stop while a service is absent, slow, dying or well, half of the time with a second thread that stops.
void start_and_stop(std::uint64_t seed) {
  Random random(seed);
  RandomDevice device(seed);
  FakeVesk& vesk = device.m_vesk;
  using namespace orvel::test;  // NOLINT(google-build-using-namespace)
  const Service candidates[] = {kDelegate, kPower, kDirectives};
  const std::string ill = kServices.at(candidates[random() % std::size(candidates)]);
  const auto illness = random() % 8;
  if (illness == 0) vesk.kill_service(ill);     // given up
  if (illness == 1) vesk.hold_binds(ill);       // bound, but never ready
  if (illness == 2) vesk.refuse_binds(ill, 3);  // bound at the fourth attempt
  if (illness == 3) vesk.fail_once("vesk_handle_link_to_death", 2);
  std::thread stopper;
  if (random() % 2 == 0) {
    stopper = std::thread([&vesk, uses = static_cast<int>(random() % 200)] {
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
      while (vesk.uses() < uses && std::chrono::steady_clock::now() < end) std::this_thread::yield();
      g_client.shutdown();
    });
  }
  const bool started = g_client.initialize();
  if (illness == 4) vesk.kill_service(ill);
  require(started || stopper.joinable(), "a start that nothing stops succeeds");
  if (!started) ++g_interrupted;
  if (illness > 4 && !stopper.joinable()) {
    bool named = device.kills() > 0;
    for (int attempt = 0; attempt < 20 && !named; ++attempt) named = !g_client.getDeviceName().empty();
    require(named, "a started client works");
  }
  if (illness == 1) vesk.complete_binds(ill);
  g_client.shutdown();
  if (stopper.joinable()) stopper.join();
  g_client.shutdown();
  require_nothing_left(device);
}

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-races",
                "Races of the client library; --count calls, and a start and a stop for each hundred of them", 20'000);
  int threads = 8;
  std::size_t exit = kExits.size();
  runner.options().add_option("--threads", threads, "that make the calls")->check(CLI::Range(1, 64));
  runner.options().add_option("--exit", exit, "be the process that ends in this way")->check(CLI::Range(0, 7));
  runner.add("calls", [&] { call_and_kill(runner, threads); });
  runner.add("starts", [&] {
    for (; g_starts < runner.count() / 100; ++g_starts) {
      const auto seed = runner.seed() * 1'000'003 + static_cast<std::uint64_t>(g_starts);
      orvel::test::begin("a start and a stop, seed " + std::to_string(seed));
      start_and_stop(seed);
    }
  });
  for (std::size_t n = 0; n < kExits.size(); ++n) {
    runner.add(std::string("ends/") + kExits.at(n), [&runner, n] {
      const auto ended =
          orvel::test::run({"/proc/self/exe", "--exit", std::to_string(n), "--seed", std::to_string(runner.seed())});
      require(ended.status == kExitStatus, "it ends with status " + std::to_string(ended.status) + ": " + ended.error);
    });
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  // The library formats every line; where it goes is of no interest here.
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  if (exit < kExits.size()) end_process(exit, runner.seed());
  return runner.run([&] {
    return std::to_string(runner.count()) + " calls on " + std::to_string(threads) + " threads, " +
           std::to_string(g_kills) + " kills, " + std::to_string(heard()) + " notifications, " +
           std::to_string(g_starts) + " starts, " + std::to_string(g_interrupted) + " of them interrupted";
  });
}
