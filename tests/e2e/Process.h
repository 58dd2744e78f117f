// Programs under test, as processes of their own. Every wait has a deadline and throws with what was seen when it
// passes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace orvel::e2e {

using Words = std::vector<std::string>;

// One running program. Killed at the end if it still runs.
class Process {
 public:
  // The first word is a program of this build, or one with a slash. `environment` adds NAME=VALUE.
  Process(const Words& words, const Words& environment);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return m_pid; }
  void write(const std::string& line) const;
  void signal(int number) const;

  // The rest of the line in which `text` stands next, after what was waited for before.
  std::string waitForOutput(const std::string& text) { return waitFor(m_output, text); }
  std::string waitForError(const std::string& text) { return waitFor(m_error, text); }

  // The exit status, 128 + N for signal N; everything was read then.
  int wait();

  const std::string& output() const { return m_output.text; }
  const std::string& error() const { return m_error.text; }

 private:
  struct Stream {
    int descriptor = -1;
    std::string text;
    std::size_t seen = 0;
  };

  bool read();  // false at the end of both streams
  std::string waitFor(Stream& stream, const std::string& text);

  Words m_words;
  pid_t m_pid = 0;
  int m_input = -1;
  Stream m_output;
  Stream m_error;
  bool m_ended = false;
};

struct Result {
  int status;
  std::string output;
  std::string error;
};

// Runs a program to its end.
Result run(const Words& words, const Words& environment);

// Waits until a process that is no child has ended.
void waitForEndOf(pid_t pid);

}  // namespace orvel::e2e
