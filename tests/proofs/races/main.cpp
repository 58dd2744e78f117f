// Eight threads, all public methods, and services that die and come back; a thousand starts and stops; every way in which a
// process may end. Run under ThreadSanitizer, whose reports make it fail too.
#include <android/log.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

#include "races/Exits.h"
#include "races/FakeDevice.h"
#include "races/Operations.h"
#include "races/Watchdog.h"

namespace {

using namespace orvel::races;  // NOLINT(google-build-using-namespace)
using orvel::test::Live;

// Registrations are for ever, and each death renews them all.
constexpr long kOperationsPerRound = 5000;

struct Totals {
  long operations = 0;
  long starts = 0;
  long interrupted = 0;
  long kills = 0;
  long ends = 0;
};

// Of what the client got, nothing is left but what it leaves on purpose: the messages of one method, and the lookup of a handle
// that could not be linked to its death.
void require_nothing_left(FakeDevice& device) {
  Live live = device.vesk().live();
  live.payloads = live.buffers = live.lookups = 0;
  require(live == Live{}, "a stopped client holds no reference");
}

void operate(Client& client, std::uint64_t seed, int threads, long count, Totals& totals) {
  for (std::uint64_t round = 0; totals.operations < count; ++round) {
    const long share = std::min(kOperationsPerRound, count - totals.operations);
    FakeDevice device(seed + round);
    device.serve();
    client.initialize();
    device.start_acting();
    run_operations(client, seed + round, threads, share);
    device.stop();
    client.shutdown();
    require_nothing_left(device);
    totals.operations += share;
    totals.kills += device.kills();
  }
}

// One start and one stop while services are absent, slow, dying or well, half of the time with a second thread that stops.
void start_and_stop(Client& client, std::uint64_t seed, Totals& totals) {
  Random random(seed);
  FakeDevice device(seed);
  orvel::test::InprocessVesk& vesk = device.vesk();
  const char* const services[] = {"orvel_delegate", "com.quarlo.orvel.powermanager",
                                  "orvel-service-coordinator-public"};
  const char* const ill = services[random() % std::size(services)];
  device.serve();
  const auto illness = random() % 8;
  if (illness == 0) vesk.kill_service(ill);     // given up
  if (illness == 1) vesk.hold_binds(ill);       // bound, but never ready
  if (illness == 2) vesk.refuse_binds(ill, 3);  // bound at the fourth attempt
  if (illness == 3) vesk.fail_once("vesk_handle_link_to_death", 2);
  std::thread stopper;
  if (random() % 2 == 0) {
    stopper = std::thread([&client, &vesk, uses = static_cast<int>(random() % 200)] {
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
      while (vesk.uses() < uses && std::chrono::steady_clock::now() < end) std::this_thread::yield();
      client.shutdown();
    });
  }
  const bool started = client.initialize();
  if (illness == 4) vesk.kill_service(ill);
  require(started || stopper.joinable(), "a start that nobody stops succeeds");
  if (!started) ++totals.interrupted;
  if (illness > 4 && !stopper.joinable()) {
    bool named = device.kills() > 0;
    for (int attempt = 0; attempt < 20 && !named; ++attempt) named = !client.getDeviceName().empty();
    require(named, "a started client works");
  }
  if (illness == 1) vesk.complete_binds(ill);
  client.shutdown();
  if (stopper.joinable()) stopper.join();
  client.shutdown();
  require_nothing_left(device);
  ++totals.starts;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Races of the client library.");
  std::uint64_t seed = 1;
  long count = 20'000;
  int threads = 8;
  long starts = 200;
  int ends = 2;
  int limit = 120;
  int exit_case = -1;
  app.add_option("--seed", seed, "What everything random comes from")->capture_default_str();
  app.add_option("--count", count, "Operations")->capture_default_str();
  app.add_option("--threads", threads, "Threads that share them")->check(CLI::Range(1, 64))->capture_default_str();
  app.add_option("--starts", starts, "Starts and stops")->capture_default_str();
  app.add_option("--ends", ends, "Child processes for each way to end one")->capture_default_str();
  app.add_option("--limit", limit, "Seconds after which a step hangs")->capture_default_str();
  app.add_option("--exit-case", exit_case, "Be a child that ends in this way")->check(CLI::Range(0, kExitCases - 1));
  CLI11_PARSE(app, argc, argv);

  // The library formats every line; where it goes is of no interest here.
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  const std::string reproduce = "--seed " + std::to_string(seed) + " --count " + std::to_string(count);
  if (exit_case >= 0) {
    new Watchdog(std::chrono::seconds(limit), reproduce);  // as long as the process
    const Watchdog::Step step("the end of the process");
    end_process(exit_case, seed);
  }

  Totals totals;
  {
    const Watchdog watchdog(std::chrono::seconds(limit), reproduce);
    Client& client = Client::getClient();
    operate(client, seed, threads, count, totals);
    for (long n = 0; n < starts; ++n) {
      const Watchdog::Step step("a start and a stop");
      start_and_stop(client, seed * 1'000'003 + static_cast<std::uint64_t>(n), totals);
    }
    for (int n = 0; n < ends * kExitCases; ++n) {
      require(child_ends_well(n % kExitCases, seed + static_cast<std::uint64_t>(n)), "a process ends well");
      ++totals.ends;
    }
  }
  std::printf(
      "orvel-races: seed %llu, %ld operations on %d threads, %ld kills, %ld notifications heard; %ld starts, %ld of "
      "them "
      "interrupted; %ld processes ended; %d promises broken\n",
      static_cast<unsigned long long>(seed), totals.operations, threads, totals.kills, heard(), totals.starts,
      totals.interrupted, totals.ends, broken());
  return broken() == 0 ? 0 : 1;
}
