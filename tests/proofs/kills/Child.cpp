#include "Child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace orvel::kills {
namespace {

void check(bool good, const std::string& what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

std::pair<Descriptor, Descriptor> makePipe() {
  int ends[2];
  check(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace

void Descriptor::reset() {
  if (m_number >= 0) close(std::exchange(m_number, -1));
}

Child::Child(const std::vector<std::string>& words, const std::string& errors, int deathSignal) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  auto [inputReader, inputWriter] = makePipe();
  auto [outputReader, outputWriter] = makePipe();
  const Descriptor log(open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  check(log.get() >= 0, errors);
  const pid_t parent = getpid();
  m_pid = fork();  // NOLINT(cppcoreguidelines-prefer-member-initializer): the pipes come first
  check(m_pid >= 0, "fork");
  if (m_pid == 0) {
    // Only what may be called between a fork of a process with threads and an exec.
    prctl(PR_SET_PDEATHSIG, deathSignal);
    if (getppid() != parent) _exit(1);
    dup2(inputReader.get(), STDIN_FILENO);
    dup2(outputWriter.get(), STDOUT_FILENO);
    dup2(log.get(), STDERR_FILENO);
    execv(arguments.front(), arguments.data());
    _exit(127);
  }
  m_input = std::move(inputWriter);
  m_output = std::move(outputReader);
}

Child::~Child() {
  if (!m_reaped) {
    signal(SIGKILL);
    wait();
  }
}

void Child::write(const std::string& line) const {
  const std::string text = line + '\n';
  // Orders are short, and the pipe of a client that takes none any more tells of its end.
  check(::write(m_input.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), "giving an order");
}

int Child::wait() {
  while (!m_reaped && waitpid(m_pid, &m_status, 0) < 0 && errno == EINTR) {
  }
  m_reaped = true;
  return m_status;
}

bool Child::ended() {
  m_reaped = m_reaped || waitpid(m_pid, &m_status, WNOHANG) == m_pid;
  return m_reaped;
}

Usage usageOf(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  Usage usage;
  std::ifstream status(folder + "/status");
  for (std::string line; std::getline(status, line);) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "VmRSS:") words >> usage.kilobytes;
    if (key == "Threads:") words >> usage.threads;
  }
  std::error_code gone;
  for (std::filesystem::directory_iterator each(folder + "/fd", gone), end; each != end; each.increment(gone)) {
    ++usage.descriptors;
  }
  return usage;
}

bool signalChildOf(pid_t parent, pid_t pid, int number) {
  // The handle keeps naming this process, so what is found out about the number afterwards holds for it.
  const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (handle.get() < 0) return false;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line) && line.rfind("PPid:", 0) != 0) {
  }
  if (line != "PPid:\t" + std::to_string(parent)) return false;
  return syscall(SYS_pidfd_send_signal, handle.get(), number, nullptr, 0) == 0;
}

}  // namespace orvel::kills
