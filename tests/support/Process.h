// Programs under test as processes of their own. Every wait has a limit and throws std::runtime_error when it passes,
// with what the program has written until then.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "vesk/host/Support.h"

namespace orvel::test {

using Words = std::vector<std::string>;
using Limit = std::chrono::milliseconds;

// Far beyond what a program takes to answer, under a sanitizer on a busy machine too.
constexpr Limit kPatience{20'000};

// A directory of this process's own, removed at the end with all that is in it. "device" in it serves as
// ORVEL_RUNTIME_DIR.
class TemporaryDirectory {
 public:
  TemporaryDirectory() { vesk::check_errno(mkdtemp(m_path.data()) == nullptr ? -1 : 0); }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::filesystem::path path() const { return m_path; }

 private:
  std::string m_path = std::filesystem::temp_directory_path() / "orvel-test-XXXXXX";
};

// The folder with the programs of this build.
std::string programFolder();

struct ProcessOptions {
  std::string error_file;      // to which standard error is appended; empty: error() has it
  int death_signal = SIGKILL;  // what the process gets when the thread that starts it ends, as with this process
};

// One running program with pipes as its standard streams. Killed and waited for at the end if it still runs. One
// thread at a time may read and wait; another may write, close the input and send signals meanwhile.
class Process {
 public:
  // The first word is a program of this build, or one with a slash; one that cannot be run ends with status 127.
  // `environment` gives NAME=VALUE in place of this process's own variables of those names.
  explicit Process(const Words& words, const Words& environment = {}, const ProcessOptions& options = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return m_pid; }
  void signal(int number) const { vesk::check_errno(kill(m_pid, number)); }
  void write(const std::string& line) const;
  void closeInput() { m_input.reset(); }

  // The rest of the line in which `text` stands next, after what was waited for before. With "" that is the next line.
  std::string waitForOutput(const std::string& text, Limit limit = kPatience) { return waitFor(m_output, text, limit); }
  std::string waitForError(const std::string& text, Limit limit = kPatience) { return waitFor(m_error, text, limit); }

  // The exit status, 128 + N for signal N; everything was read then.
  int wait(Limit limit = kPatience);
  bool hasEnded();

  const std::string& output() const { return m_output.text; }
  const std::string& error() const { return m_error.text; }
  int outputDescriptor() const { return m_output.descriptor.get(); }  // for a caller that reads all of it by itself

 private:
  struct Stream {
    vesk::UniqueFd descriptor;
    std::string text;
    std::size_t seen = 0;
  };

  bool readUntil(std::chrono::steady_clock::time_point end);  // false at the end of both streams
  std::string waitFor(Stream& stream, const std::string& text, Limit limit);
  [[noreturn]] void fail(const std::string& what) const;

  std::string m_program;
  pid_t m_pid = 0;
  int m_status = -1;  // until the process was waited for
  vesk::UniqueFd m_input;
  Stream m_output;
  Stream m_error;
};

struct Result {
  int status;
  std::string output;
  std::string error;
};

// Runs a program to its end.
Result run(const Words& words, const Words& environment = {});

// Waits until a process has ended that need not be a child.
void waitForEndOf(pid_t pid, Limit limit = kPatience);

// What a process holds at the moment; zeros once it has ended.
struct Usage {
  long resident_kb = 0;
  long peak_kb = 0;  // the most that were resident
  long threads = 0;
  std::size_t descriptors = 0;
};
Usage usageOf(pid_t pid);

}  // namespace orvel::test
