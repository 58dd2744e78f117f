// Starting programs. Nothing here forks without running another program: a process with a vesk runtime must not.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "sim/Endpoint.h"

namespace orvel::sim {

// A program that this process started. Run-loop thread, which must also be the thread that starts it: a child that asks
// to die with its parent means the thread.
class Process {
 public:
  enum class Streams { kInherited, kErrorsOnly };  // kErrorsOnly: standard input and output are /dev/null

  // Looks for a program without a slash in PATH. Throws std::system_error. `ended` is told how it ended, as waitid
  // says; it may destroy this. Destroying a process that has not ended stops it, with SIGTERM and after a while with
  // SIGKILL.
  Process(sd_event* event, const std::string& program, const std::vector<std::string>& arguments, Streams streams,
          std::function<void(const siginfo_t&)> ended);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return m_pid; }

 private:
  std::function<void(const siginfo_t&)> m_ended;
  pid_t m_pid = 0;  // 0: ended and waited for
  SourcePtr m_source;
};

// "was killed by signal 9", "ended with status 1".
std::string describeEnd(const siginfo_t& end);

// The exit status that a shell would give for it.
int statusOf(const siginfo_t& end);

// The signals that are taken from the run loop or by waiting for a process; every other thread must not get them.
void blockSignals();

}  // namespace orvel::sim
