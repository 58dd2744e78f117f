// Random programs of public calls against random services, checked against the model.
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "Run.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)

// The whole trace of a seed, with all log lines.
std::string trace_of(std::uint64_t seed) {
  SeededChoices choices(seed);
  Trace trace;
  const std::string failure = run(choices, trace, /*lines=*/true);
  return shown(trace, trace.events.size()) + failure;
}

struct Counts {
  long runs = 0;
  long calls = 0;
  long events = 0;
  long repeated = 0;
  long failures = 0;
};

// One in this many seeds is run two more times, whose traces must be equal.
constexpr std::uint64_t kRepeatEvery = 50;

std::atomic<std::uint64_t> g_seed{0};  // for the last words of a run that hangs

void hung(int) {
  char text[80];
  const int size = std::snprintf(text, sizeof(text), "HUNG: again with --seed %llu --count 1\n",
                                 static_cast<unsigned long long>(g_seed.load()));
  if (write(STDOUT_FILENO, text, static_cast<std::size_t>(size)) > 0) _exit(1);
  _exit(2);
}

void check(std::uint64_t seed, Counts& counts) {
  g_seed = seed;
  alarm(60);
  SeededChoices choices(seed);
  Trace trace;
  std::string failure = run(choices, trace, /*lines=*/false);
  ++counts.runs;
  counts.calls += static_cast<long>(trace.calls.size());
  counts.events += static_cast<long>(trace.events.size());
  if (failure.empty() && seed % kRepeatEvery == 0) {
    ++counts.repeated;
    const std::string first = trace_of(seed);
    if (const std::string second = trace_of(seed); first != second)
      failure = "two runs of the same seed differ\n" + first + "---\n" + second;
  }
  if (failure.empty()) return;
  ++counts.failures;
  std::cout << failure << "FAILED: again with --seed " << seed << " --count 1\n";
}

int keep(std::uint64_t seed, const std::string& path) {
  SeededChoices seeded(seed);
  std::string bytes;
  KeptChoices choices(seeded, bytes);
  Trace trace;
  run(choices, trace, /*lines=*/false);
  std::ofstream file(path, std::ios::binary);
  file << bytes << std::flush;
  if (file) return 0;
  std::cerr << "cannot write " << path << "\n";
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t first = 1;
  std::uint64_t count = 5000;
  bool verbose = false;
  std::string seeds;
  std::string kept;
  CLI::App app("Random programs of public calls against random services, checked against a model");
  app.add_option("--seed", first, "the first seed")->capture_default_str();
  app.add_option("--count", count, "how many seeds")->capture_default_str();
  app.add_option("--seeds", seeds, "a file of seeds to run before")->check(CLI::ExistingFile);
  app.add_flag("--verbose", verbose, "print what happens in each run");
  app.add_option("--keep", kept, "a file to write the first seed's choices to, as an input of fuzz_Client");
  CLI11_PARSE(app, argc, argv);
  if (!kept.empty()) return keep(first, kept);

  std::signal(SIGALRM, hung);
  Counts counts;
  const auto begin = std::chrono::steady_clock::now();
  if (!seeds.empty()) {
    std::ifstream file(seeds);
    const std::vector<std::uint64_t> known(std::istream_iterator<std::uint64_t>(file), {});
    for (const std::uint64_t seed : known) check(seed, counts);
  }
  for (std::uint64_t seed = first; seed < first + count && counts.failures < 5; ++seed) {
    if (verbose) std::cout << "seed " << seed << "\n" << trace_of(seed);
    check(seed, counts);
  }
  alarm(0);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  std::cout << "simulation: seeds " << first << " to " << first + count - 1 << ", " << counts.runs << " runs, "
            << counts.calls << " calls, " << counts.events << " events, " << counts.repeated << " repeated, "
            << static_cast<long>(static_cast<double>(counts.runs) / took.count()) << " runs/s, " << counts.failures
            << " failed\n";
  return counts.failures == 0 ? 0 : 1;
}
