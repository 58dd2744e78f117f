#include "sim/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace orvel::sim {
namespace {

constexpr int kPatienceMs = 3000;

pid_t spawn(const std::string& program, const std::vector<std::string>& arguments, Process::Streams streams) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_init(&actions);
  // The program starts as if from a shell, without the signal settings of this process.
  sigset_t none;
  sigset_t pipe;
  sigemptyset(&none);
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &pipe);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  if (streams == Process::Streams::kErrorsOnly) {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, program.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::system_error(error, std::generic_category(), "cannot run " + arguments.front());
  return pid;
}

void waitOrKill(pid_t pid) {
  const auto handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd ended = {handle, POLLIN, 0};
  if (handle < 0 || poll(&ended, 1, kPatienceMs) != 1) kill(pid, SIGKILL);
  if (handle >= 0) close(handle);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

Process::Process(sd_event* event, const std::string& program, const std::vector<std::string>& arguments,
                 Streams streams, std::function<void(const siginfo_t&)> ended)
    : m_ended(std::move(ended)), m_pid(spawn(program, arguments, streams)) {
  const auto notice = [](sd_event_source*, const siginfo_t* end, void* self) noexcept {
    auto& process = *static_cast<Process*>(self);
    process.m_pid = 0;
    const auto told = std::move(process.m_ended);
    told(*end);
    return 0;
  };
  sd_event_source* source = nullptr;
  const int result = sd_event_add_child(event, &source, m_pid, WEXITED, notice, this);
  m_source.reset(source);
  if (result < 0) {
    kill(m_pid, SIGKILL);
    waitOrKill(m_pid);
    check(result, "watching a process");
  }
}

Process::~Process() {
  m_source.reset();
  if (m_pid == 0) return;
  kill(m_pid, SIGTERM);
  waitOrKill(m_pid);
}

std::string describeEnd(const siginfo_t& end) {
  return (end.si_code == CLD_EXITED ? "ended with status " : "was killed by signal ") + std::to_string(end.si_status);
}

int statusOf(const siginfo_t& end) {
  return end.si_code == CLD_EXITED ? end.si_status : 128 + end.si_status;
}

void blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace orvel::sim
