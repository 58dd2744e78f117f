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

// One in this many seeds is run twice, with equal traces.
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

struct Run {
  Trace trace;
  std::string failure;
};

class Simulation {
 public:
  explicit Simulation(bool canary) : m_pause(canary ? kPauseAfterDeath - 1 : kPauseAfterDeath) {}

  void check(std::uint64_t seed, bool verbose) {
    begin("seed " + std::to_string(seed) + " (--seed " + std::to_string(seed) + " --count 1)");
    const Run first = run(seed);
    if (verbose) std::cout << "seed " << seed << "\n" << describe(first.trace, first.trace.size());
    require(first.failure.empty(), "\n" + first.failure);
    const auto is_call = [](const Event& it) { return it.kind == Kind::kCall; };
    m_calls += std::count_if(first.trace.begin(), first.trace.end(), is_call);
    m_events += first.trace.size();
    if (seed % kRepeatEvery != 0) return;
    const Run second = run(seed);
    const std::string one = describe(first.trace, first.trace.size());
    const std::string other = describe(second.trace, second.trace.size());
    require(one == other, "two runs of the same seed differ\n" + one + "---\n" + other);
  }

  std::string summary() const { return std::to_string(m_calls) + " calls, " + std::to_string(m_events) + " events"; }

 private:
  Run run(std::uint64_t seed) const {
    Run made;
    {
      Choices choices(seed);
      World world(choices, made.trace);
      world.run();
      made.failure = verdict(world, made.trace, m_pause);
    }
    if (!Client::getClient().isMaroConnected()) connect_assistant();
    return made;
  }

  const int m_pause;
  std::int64_t m_calls = 0;
  std::size_t m_events = 0;
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
  Simulation simulation(runner.canary());
  runner.add("programs", [&] {
    for (std::uint64_t seed = runner.seed(); seed < runner.seed() + static_cast<std::uint64_t>(runner.count()); ++seed)
      simulation.check(seed, verbose);
  });
  return runner.run([&] { return std::to_string(runner.count()) + " runs, " + simulation.summary(); });
}
