// A child process with its standard output in a pipe. Killed, and waited for, at the end of the scope at the latest.
#pragma once

#include <csignal>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orvel::test {

class Process {
 public:
  explicit Process(std::vector<std::string> command) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
    m_output = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::vector<char*> arguments;
    for (std::string& argument : command) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    const int error = ::posix_spawn(&m_pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    if (error != 0) throw std::system_error(error, std::generic_category(), command[0]);
  }
  ~Process() {
    end(SIGKILL);
    ::close(m_output);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t pid() const { return m_pid; }
  void send(int signal) const { ::kill(m_pid, signal); }

  // Waits for the next byte of its output; throws when the process ends without one.
  char read() const {
    char byte = 0;
    if (::read(m_output, &byte, 1) != 1) throw std::runtime_error("the child process ended early");
    return byte;
  }

  // Sends `signal` (0 for none) and waits for the end. The exit status as waitpid gives it, -1 when it had ended
  // before.
  int end(int signal) {
    int status = -1;
    if (m_pid == 0) return status;
    if (signal != 0) send(signal);
    ::waitpid(m_pid, &status, 0);
    m_pid = 0;
    return status;
  }

 private:
  pid_t m_pid = 0;
  int m_output = -1;
};

}  // namespace orvel::test
