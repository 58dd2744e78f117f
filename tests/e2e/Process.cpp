#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace orvel::e2e {
namespace {

// Far beyond what anything takes, also under a sanitizer on a busy machine.
constexpr int kDeadlineMs = 60'000;

void check(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
  Pipe() { check(pipe2(ends, O_CLOEXEC) == 0, "pipe2"); }
  int ends[2] = {-1, -1};
};

std::vector<char*> pointersTo(const Words& words) {
  std::vector<char*> pointers;
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

Process::Process(const Words& words, const Words& environment) : m_words(words) {
  const std::string program =
      words.front().find('/') == std::string::npos ? ORVEL_BIN "/" + words.front() : words.front();
  Words variables = environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string name(*variable, std::strcspn(*variable, "=") + 1);  // a shell may take the second of two
    const auto is_given = [&](const std::string& given) { return given.rfind(name, 0) == 0; };
    if (std::none_of(environment.begin(), environment.end(), is_given)) variables.emplace_back(*variable);
  }

  const Pipe input;
  const Pipe output;
  const Pipe error;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.ends[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, error.ends[1], STDERR_FILENO);
  errno =
      posix_spawn(&m_pid, program.c_str(), &actions, nullptr, pointersTo(words).data(), pointersTo(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  check(errno == 0, program.c_str());
  close(input.ends[0]);
  close(output.ends[1]);
  close(error.ends[1]);
  m_input = input.ends[1];
  m_output.descriptor = output.ends[0];
  m_error.descriptor = error.ends[0];
}

Process::~Process() {
  if (!m_ended) {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
  for (const int descriptor : {m_input, m_output.descriptor, m_error.descriptor}) close(descriptor);
}

void Process::write(const std::string& line) const {
  const std::string text = line + "\n";
  check(::write(m_input, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
}

void Process::signal(int number) const {
  check(kill(m_pid, number) == 0, "kill");
}

bool Process::read() {
  Stream* const streams[] = {&m_output, &m_error};
  pollfd polled[] = {{m_output.descriptor, POLLIN, 0}, {m_error.descriptor, POLLIN, 0}};
  if (poll(polled, 2, kDeadlineMs) <= 0) {
    throw std::runtime_error(m_words.front() + " says no more after:\n" + output() + error());
  }
  for (int i = 0; i < 2; ++i) {
    if (polled[i].fd < 0 || polled[i].revents == 0) continue;
    char bytes[4096];
    const ssize_t size = ::read(polled[i].fd, bytes, sizeof(bytes));
    if (size > 0) {
      streams[i]->text.append(bytes, static_cast<std::size_t>(size));
    } else {
      close(std::exchange(streams[i]->descriptor, -1));
    }
  }
  return m_output.descriptor >= 0 || m_error.descriptor >= 0;
}

std::string Process::waitFor(Stream& stream, const std::string& text) {
  const auto start = std::chrono::steady_clock::now();
  for (bool more = true;; more = read()) {
    const std::size_t begin = stream.text.find(text, stream.seen);
    const std::size_t end = begin == std::string::npos ? begin : stream.text.find('\n', begin);
    if (end != std::string::npos) {
      stream.seen = end + 1;
      return stream.text.substr(begin + text.size(), end - begin - text.size());
    }
    const bool late = std::chrono::steady_clock::now() - start > std::chrono::milliseconds(kDeadlineMs);
    if (!more || late)
      throw std::runtime_error("no '" + text + "' from " + m_words.front() + ":\n" + output() + error());
  }
}

int Process::wait() {
  while (m_output.descriptor >= 0 || m_error.descriptor >= 0) read();
  int status = 0;
  check(waitpid(m_pid, &status, 0) == m_pid, "waitpid");
  m_ended = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Result run(const Words& words, const Words& environment) {
  Process process(words, environment);
  const int status = process.wait();
  return {status, process.output(), process.error()};
}

void waitForEndOf(pid_t pid) {
  pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
  if (ended.fd < 0 && errno == ESRCH) return;
  check(ended.fd >= 0, "pidfd_open");
  const int ready = poll(&ended, 1, kDeadlineMs);
  close(ended.fd);
  if (ready != 1) throw std::runtime_error("process " + std::to_string(pid) + " does not end");
}

}  // namespace orvel::e2e
