// Random programs of public calls against random services, checked against the model.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "Trace.h"
#include "support/Runner.h"

namespace orvel::test::simulation {
namespace {

constexpr int kPauseAfterDeath = 6;

// Gives how many events there were.
std::size_t check(std::uint64_t seed, int pause) {
  begin("seed " + std::to_string(seed) + " (--seed " + std::to_string(seed) + " --count 1)");
  Trace trace;
  const bool maro_before = Client::getClient().isMaroConnected();
  const std::string seen = run_world(seed, trace);
  try {
    const std::string promised = model_end(trace, pause, maro_before);
    require(seen == promised ? "" : "\n" + describe(trace, trace.size()) + promised + "and not\n" + seen);
  } catch (const std::exception& mismatch) {
    require(false, mismatch.what());
  }
  return trace.size();
}

}  // namespace
}  // namespace orvel::test::simulation

int main(int argc, char** argv) {
  orvel::test::Runner runner("simulation", "Random programs of public calls against random services, against a model",
                             5000);
  std::size_t events = 0;
  runner.add("programs", [&] {
    using namespace orvel::test::simulation;
    const int pause = runner.canary() ? kPauseAfterDeath - 1 : kPauseAfterDeath;
    for (std::uint64_t n = 0; n < static_cast<std::uint64_t>(runner.count()); ++n)
      events += check(runner.seed() + n, pause);
  });
  if (const auto status = runner.parse(argc, argv)) return *status;
  return runner.run([&] { return std::to_string(runner.count()) + " runs, " + std::to_string(events) + " events"; });
}
