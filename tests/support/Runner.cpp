#include "support/Runner.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <mutex>
#include <set>
#include <utility>

namespace orvel::test {
namespace {

constexpr std::size_t kMostReported = 20;
constexpr unsigned kLimitSeconds = 30;

// Never destroyed: threads may outlive main(). The mutex guards the rest.
struct State {
  std::mutex mutex;
  std::string again;  // the options that try the same once more
  std::string now;    // what is tried
  std::set<std::string> reported;
};
State& state() {
  static State& instance = *new State;
  return instance;
}

std::array<char, 400> g_report;  // is ready for a signal handler

void stopped(int) {
  std::signal(SIGABRT, SIG_DFL);
  if (write(STDOUT_FILENO, g_report.data(), std::strlen(g_report.data())) >= 0) std::abort();
  _exit(1);
}

}  // namespace

void begin(const std::string& what) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().now = what;
  std::snprintf(g_report.data(), g_report.size(), "HUNG OR ABORTED: %s; again with %s\n", what.c_str(),
                state().again.c_str());
  for (const int number : {SIGALRM, SIGABRT}) std::signal(number, stopped);
  alarm(kLimitSeconds);
}

void require(bool holds, const std::string& promise) {
  if (holds) return;
  const std::lock_guard<std::mutex> lock(state().mutex);
  const std::string report = state().now + ": " + promise;
  if (!state().reported.insert(report).second || state().reported.size() > kMostReported) return;
  std::cout << "FAILED: " << report << "; again with " << state().again << std::endl;
}

Runner::Runner(std::string program, const std::string& about, long count)
    : m_program(std::move(program)), m_options(std::make_unique<CLI::App>(about)), m_count(count) {
  m_options->add_option("--seed", m_seed, "what everything random comes from")->capture_default_str();
  m_options->add_option("--count", m_count, "how much is tried")->check(CLI::PositiveNumber)->capture_default_str();
  m_options->add_option("--only", m_only, "the part of this name, or all under a name that ends in a slash");
  m_options->add_flag("--canary", m_canary, "plant a fault; the status is 0 when it was found");
}

Runner::~Runner() {
  alarm(0);
}

std::optional<int> Runner::parse(int argc, char** argv) {
  try {
    m_options->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return m_options->exit(error);
  }
  return std::nullopt;
}

bool Runner::isChosen(const std::string& name) const {
  return m_only.empty() || std::any_of(m_only.begin(), m_only.end(), [&](const std::string& only) {
           return name == only || (only.back() == '/' && name.compare(0, only.size(), only) == 0);
         });
}

int Runner::run(const std::function<std::string()>& summary) {
  int parts = 0;
  for (const Part& part : m_parts) {
    if (!isChosen(part.name)) continue;
    ++parts;
    state().again =
        "--only '" + part.name + "' --seed " + std::to_string(m_seed) + " --count " + std::to_string(m_count);
    begin(part.name);
    try {
      part.run();
    } catch (const std::exception& error) {
      require(false, error.what());
    }
  }
  alarm(0);
  if (parts == 0) {
    std::cerr << m_program << ": no part has such a name; there are";
    for (const Part& part : m_parts) std::cerr << ' ' << part.name;
    std::cerr << std::endl;
    return 2;
  }
  const std::size_t failed = state().reported.size();
  std::cout << m_program << ": seed " << m_seed << ", " << parts << " parts, " << summary() << "; " << failed
            << " failed" << (m_canary ? ", because a fault was planted" : "") << std::endl;
  return (failed == 0) == m_canary ? 1 : 0;
}

}  // namespace orvel::test
