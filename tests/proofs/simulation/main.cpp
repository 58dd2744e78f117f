// Random programs of public calls against random services, checked against the model.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Model.h"
#include "World.h"
#include "support/ClientFixture.h"
#include "support/Runner.h"

namespace orvel::test::simulation {
namespace {

// One in this many seeds is run two more times, whose traces must be equal.
constexpr std::uint64_t kRepeatEvery = 50;
constexpr int kPauseAfterDeath = 6;

// The client is the process's one, and remembers whether the assistant is connected. Tells it that it is.
void connect_assistant() {
  const std::string method = "registerForMaroConnectivityChange";
  ClientFixture device;
  device.start_services();
  Client& client = Client::getClient();
  client.initialize();
  test::method(method).call(client, {});
  const auto is_it = [&](const Notice& each) { return each.to.row == row_of(method); };  // the first: it is connected
  device.send("com.quarlo.speech.CONNECTIVITY_ACTION",
              std::find_if(notices().begin(), notices().end(), is_it)->message);
  device.m_vesk.drain();
  client.shutdown();
  if (!client.isMaroConnected()) std::abort();
}

std::string joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  return all;
}

// Empty when all was as promised, else what was not, with all that led there.
std::string verdict(const World& world, const Trace& trace, int pause) {
  Model model(trace, pause);
  try {
    model.check();
  } catch (const Mismatch& mismatch) {
    const std::string seen = mismatch.at < trace.size() ? describe(trace[mismatch.at]) : "the end";
    return describe(trace, mismatch.at) + "  expected: " + mismatch.expected + "\n  seen:     " + seen + "\n";
  }
  std::ostringstream failures;
  if (world.bindings() != model.bindings()) {
    failures << "bound, unbound, published\n  expected:\n"
             << joined(model.bindings()) << "  seen:\n"
             << joined(world.bindings());
  }
  Live left;
  left.payloads = left.buffers = model.forgotten();
  left.lookups = model.late_handles();
  if (!(world.live() == left)) failures << "left\n  expected: " << left << "\n  seen:     " << world.live() << "\n";
  if (world.callbacks() != 0) failures << world.callbacks() << " callbacks outlive the client\n";
  if (Client::getClient().isMaroConnected() != model.maro_connected())
    failures << "whether the assistant is connected is not what was told last\n";
  return failures.str().empty() ? "" : describe(trace, trace.size()) + failures.str();
}

struct Counts {
  long calls = 0;
  long events = 0;
  long repeated = 0;
};

class Simulation {
 public:
  explicit Simulation(const Runner& runner) : m_runner(runner) {}

  void check(std::uint64_t seed) {
    begin("seed " + std::to_string(seed) + " (--seed " + std::to_string(seed) + " --count 1)");
    Trace trace;
    const std::string failure = run(seed, trace, /*lines=*/false);
    require(failure.empty(), "\n" + failure);
    m_counts.calls += std::count_if(trace.begin(), trace.end(), [](const Event& it) { return it.kind == Kind::kCall; });
    m_counts.events += static_cast<long>(trace.size());
    if (seed % kRepeatEvery != 0) return;
    ++m_counts.repeated;
    const std::string first = trace_of(seed);
    const std::string second = trace_of(seed);
    require(first == second, "two runs of the same seed differ\n" + first + "---\n" + second);
  }

  // What happens in the run of a seed, with what the client logs.
  std::string trace_of(std::uint64_t seed) {
    Trace trace;
    const std::string failure = run(seed, trace, /*lines=*/true);
    return describe(trace, trace.size()) + failure;
  }

  const Counts& counts() const { return m_counts; }

 private:
  std::string run(std::uint64_t seed, Trace& trace, bool lines) {
    std::string failure;
    {
      Choices choices(seed);
      World world(choices, trace, lines);
      world.run();
      failure = verdict(world, trace, m_runner.canary() ? kPauseAfterDeath - 1 : kPauseAfterDeath);
    }
    if (!Client::getClient().isMaroConnected()) connect_assistant();
    return failure;
  }

  const Runner& m_runner;
  Counts m_counts;
};

}  // namespace
}  // namespace orvel::test::simulation

int main(int argc, char** argv) {
  using orvel::test::simulation::Simulation;
  orvel::test::Runner runner("simulation", "Random programs of public calls against random services, against a model",
                             5000);
  bool verbose = false;
  runner.options().add_flag("--verbose", verbose, "print what happens in each run");
  if (const auto status = runner.parse(argc, argv)) return *status;
  Simulation simulation(runner);
  runner.add("programs", [&] {
    for (std::uint64_t seed = runner.seed(); seed < runner.seed() + static_cast<std::uint64_t>(runner.count());
         ++seed) {
      if (verbose) std::cout << "seed " << seed << "\n" << simulation.trace_of(seed);
      simulation.check(seed);
    }
  });
  return runner.run([&] {
    const auto& counts = simulation.counts();
    return std::to_string(runner.count()) + " runs, " + std::to_string(counts.calls) + " calls, " +
           std::to_string(counts.events) + " events, " + std::to_string(counts.repeated) + " repeated";
  });
}
