// Starting programs, which end with this one. Nothing here forks without running another program: a process with a vesk
// runtime must not.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tools/orvel-sim/host/EventSource.h"

namespace orvel::sim {

// A program that this process started, and that is killed when this process ends. The thread that starts it, the run
// loop's, must last as long: the kernel takes the end of that thread for the end of the parent.
class Process {
 public:
  // kErrorsOnly: standard input and output are /dev/null. kPiped: standard input is, the others are the pipes.
  enum class Streams { kInherited, kErrorsOnly, kPiped };

  // Descriptors to write to. Borrowed for the start.
  struct Pipes {
    int output = -1;
    int errors = -1;
  };

  // Looks for a program without a slash in PATH. Throws std::system_error. `ended` is told how it ended, as waitid
  // says; it may destroy this. Destroying a process that has not ended stops it, with SIGTERM and after a while with
  // SIGKILL.
  Process(sd_event* event, const std::string& program, const std::vector<std::string>& arguments, Streams streams,
          std::function<void(const siginfo_t&)> ended)
      : Process(event, program, arguments, streams, Pipes(), std::move(ended)) {}
  Process(sd_event* event, const std::string& program, const std::vector<std::string>& arguments, Pipes pipes,
          std::function<void(const siginfo_t&)> ended)
      : Process(event, program, arguments, Streams::kPiped, pipes, std::move(ended)) {}
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return m_pid; }

 private:
  Process(sd_event* event, const std::string& program, const std::vector<std::string>& arguments, Streams streams,
          Pipes pipes, std::function<void(const siginfo_t&)> ended);

  std::function<void(const siginfo_t&)> m_ended;
  pid_t m_pid = 0;  // 0: ended and waited for
  SourcePtr m_source;
};

// "was killed by signal 9", "ended with status 1".
std::string describeEnd(const siginfo_t& end);

// The exit status that a shell would give for it.
int statusOf(const siginfo_t& end);

// Ends what the programs that this process started have left behind, with SIGTERM and after a while with SIGKILL: what
// became this process's child when its own parent ended, which takes a process that is a child subreaper. Only when
// every Process is gone, with the signals blocked.
void endOrphans();

// The signals that are taken from the run loop or by waiting for a process; every other thread must not get them.
void blockSignals();

}  // namespace orvel::sim
