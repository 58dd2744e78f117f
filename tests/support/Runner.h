// What the main() of a program that proves something consists of: its options, the choice of its parts, an alarm for
// what hangs, and one line of result.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): the library's name
class App;
}

namespace orvel::test {

// A program with --seed, --count, --only and --canary. One for each process.
class Runner {
 public:
  // `program` begins the line of result, `about` the help. `count` is what --count is unless it is given; what it
  // counts is the program's choice.
  Runner(std::string program, const std::string& about, long count = 1);
  ~Runner();
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  // For options of the program's own.
  CLI::App& options() { return *m_options; }

  // A part of what is proven, which --only chooses by its whole name, or by a beginning that ends in a slash. `run` is
  // called once, on the main thread; what it throws is a failure.
  void add(std::string name, std::function<void()> run) { m_parts.push_back({std::move(name), std::move(run)}); }

  // Reads the command line. The status to exit with when that was all: after --help, or a mistake.
  std::optional<int> parse(int argc, char** argv);

  std::uint64_t seed() const { return m_seed; }
  long count() const { return m_count; }
  // Whether the program plants the fault that it must report.
  bool canary() const { return m_canary; }

  // Runs the chosen parts and prints the result with what `summary` adds. Returns 0 when every promise held; with
  // --canary, when one did not; 1 otherwise, 2 when there is no such part.
  int run(const std::function<std::string()>& summary);

 private:
  struct Part {
    std::string name;
    std::function<void()> run;
  };

  bool isChosen(const std::string& name) const;

  const std::string m_program;
  const std::unique_ptr<CLI::App> m_options;
  std::vector<Part> m_parts;
  std::vector<std::string> m_only;
  std::uint64_t m_seed = 1;
  long m_count;
  bool m_canary = false;
};

// Says what is tried from here on, for the report of a fault, an abort or a hang, and winds the alarm up again: what
// takes longer than 30 s ends the process with SIGABRT, whose core file has every thread. Any thread.
void begin(const std::string& what);

// Reports, each case once, what does not hold. Any thread.
void require(bool holds, const std::string& promise);

// The same of a check that says what is wrong; empty when nothing is.
inline void require(const std::string& wrong) {
  require(wrong.empty(), wrong);
}

}  // namespace orvel::test
