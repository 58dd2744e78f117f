#include "tools/orvel-sim/host/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <fstream>
#include <system_error>
#include <utility>

#include "device/Endpoint.h"

namespace orvel::sim {
namespace {

constexpr int kPatienceMs = 3000;

// How many files this process might have open before it served a device, which raises that. Programs that use select()
// are not made for more.
const rlimit kFilesAtStart = [] {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  return files;
}();

// In the child, where nothing may be called that allocates or locks. Returns only when the program cannot be run.
void become(const char* program, char* const* argv, Process::Streams streams, Process::Pipes pipes, pid_t parent) {
  // It does not outlive this process, however that ends: not even when it ended before this line.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  if (streams != Process::Streams::kInherited) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    const bool piped = streams == Process::Streams::kPiped;
    if (null < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(piped ? pipes.output : null, STDOUT_FILENO) < 0) return;
    if (piped && dup2(pipes.errors, STDERR_FILENO) < 0) return;
  }
  // The program starts as if from a shell, without the signal settings and the limit of this process.
  setrlimit(RLIMIT_NOFILE, &kFilesAtStart);
  signal(SIGPIPE, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execvp(program, argv);
}

pid_t spawn(const std::string& program, const std::vector<std::string>& arguments, Process::Streams streams,
            Process::Pipes pipes) {
  const auto fail = [&](int error) {
    throw std::system_error(error, std::generic_category(),
                            "cannot run " + (arguments.front().empty() ? "''" : arguments.front()));
  };
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  int news[2];  // closed by the program's start, or why there is none
  if (pipe2(news, O_CLOEXEC) != 0) fail(errno);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  int error = pid < 0 ? errno : 0;
  if (pid == 0) {
    become(program.c_str(), argv.data(), streams, pipes, parent);
    error = errno;
    while (write(news[1], &error, sizeof(error)) < 0 && errno == EINTR) {
    }
    _exit(127);
  }
  close(news[1]);
  while (pid > 0 && read(news[0], &error, sizeof(error)) < 0 && errno == EINTR) {
  }
  close(news[0]);
  if (error != 0) {
    if (pid > 0) waitpid(pid, nullptr, 0);
    fail(error);
  }
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
                 Streams streams, Pipes pipes, std::function<void(const siginfo_t&)> ended)
    : m_ended(std::move(ended)), m_pid(spawn(program, arguments, streams, pipes)) {
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

void endOrphans() {
  const auto patience = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  for (;;) {
    pid_t ended = 0;
    while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    if (ended < 0) return;  // there are none
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(patience - std::chrono::steady_clock::now()).count();
    std::ifstream children("/proc/thread-self/children");
    bool any = false;
    for (pid_t pid = 0; children >> pid; any = true) kill(pid, left > 0 ? SIGTERM : SIGKILL);
    if (!any) return;  // the kernel does not tell them
    // Those that are still to come are the children of the processes that end now.
    const timespec pause = left > 0 ? timespec{left / 1000, left % 1000 * 1'000'000} : timespec{1, 0};
    sigtimedwait(&child, nullptr, &pause);
  }
}

void blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace orvel::sim
