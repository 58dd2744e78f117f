#include "support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace orvel::test {
namespace {

using Clock = std::chrono::steady_clock;
using vesk::check_errno;
using vesk::UniqueFd;

std::pair<UniqueFd, UniqueFd> makePipe() {
  int ends[2];
  check_errno(pipe2(ends, O_CLOEXEC));
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

std::vector<char*> pointersTo(const Words& words) {
  std::vector<char*> pointers;
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// This process's environment with `given` in it, each variable once: a shell may take the second of two.
Words environmentWith(const Words& given) {
  Words all = given;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string name(*variable, std::strcspn(*variable, "=") + 1);
    const auto isIt = [&](const std::string& other) { return other.rfind(name, 0) == 0; };
    if (std::none_of(given.begin(), given.end(), isIt)) all.emplace_back(*variable);
  }
  return all;
}

// Polls until one is ready; false when the limit passes first.
bool pollUntil(pollfd* polled, nfds_t count, Clock::time_point limit) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
    const int ready = poll(polled, count, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready >= 0 || errno != EINTR) return check_errno(ready) > 0;
  }
}

}  // namespace

std::string programFolder() {
  return ORVEL_BIN;
}

Process::Process(const Words& words, const Words& environment, const ProcessOptions& options)
    : m_program(words.front()) {
  if (m_program.find('/') == std::string::npos) m_program = programFolder() + "/" + m_program;
  const Words variables = environmentWith(environment);
  const std::vector<char*> argv = pointersTo(words);
  const std::vector<char*> envp = pointersTo(variables);
  auto [input, inputEnd] = makePipe();
  auto [outputEnd, output] = makePipe();
  auto [errorEnd, error] = makePipe();
  if (!options.error_file.empty()) {
    errorEnd.reset();
    error.reset(check_errno(open(options.error_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)));
  }
  const pid_t parent = getpid();
  m_pid = check_errno(fork());
  if (m_pid == 0) {
    // Only what may be called between a fork of a process with threads and an exec.
    prctl(PR_SET_PDEATHSIG, options.death_signal);
    if (getppid() != parent) _exit(1);
    dup2(input.get(), STDIN_FILENO);
    dup2(output.get(), STDOUT_FILENO);
    dup2(error.get(), STDERR_FILENO);
    execve(m_program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  m_input = std::move(inputEnd);
  m_output.descriptor = std::move(outputEnd);
  m_error.descriptor = std::move(errorEnd);
}

Process::~Process() {
  if (hasEnded()) return;
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
}

void Process::write(const std::string& line) const {
  const std::string text = line + "\n";
  if (::write(m_input.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) fail("takes no input");
}

std::string Process::waitFor(Stream& stream, const std::string& text, Limit limit) {
  const auto end = Clock::now() + limit;
  do {
    const std::size_t found = stream.text.find(text, stream.seen);
    if (found == std::string::npos) continue;
    const std::size_t begin = found + text.size();
    const bool is_whole = !text.empty() && text.back() == '\n';
    const std::size_t line_end = is_whole ? begin - 1 : stream.text.find('\n', begin);
    if (line_end == std::string::npos) continue;
    stream.seen = line_end + 1;
    return is_whole ? "" : stream.text.substr(begin, line_end - begin);
  } while (readUntil(end));
  fail("has ended without '" + text + "'");
}

bool Process::readUntil(Clock::time_point end) {
  pollfd polled[] = {{m_output.descriptor.get(), POLLIN, 0}, {m_error.descriptor.get(), POLLIN, 0}};
  if (!m_output.descriptor && !m_error.descriptor) return false;
  if (!pollUntil(polled, 2, end)) fail("says no more");
  for (Stream* stream : {&m_output, &m_error}) {
    if (polled[stream == &m_output ? 0 : 1].revents == 0) continue;
    char bytes[4096];
    const ssize_t size = ::read(stream->descriptor.get(), bytes, sizeof(bytes));
    if (size > 0) stream->text.append(bytes, static_cast<std::size_t>(size));
    if (size <= 0) stream->descriptor.reset();
  }
  return true;
}

int Process::wait(Limit limit) {
  const auto end = Clock::now() + limit;
  while (readUntil(end)) {
  }
  if (m_status < 0) waitForEndOf(m_pid, std::chrono::ceil<Limit>(end - Clock::now()));
  hasEnded();
  return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
}

bool Process::hasEnded() {
  int status = 0;
  if (m_status < 0 && waitpid(m_pid, &status, WNOHANG) == m_pid) m_status = status;
  return m_status >= 0;
}

void Process::fail(const std::string& what) const {
  throw std::runtime_error(m_program + " " + what + "; it has written:\n" + output() + error());
}

Result run(const Words& words, const Words& environment) {
  Process process(words, environment);
  const int status = process.wait();
  return {status, process.output(), process.error()};
}

void waitForEndOf(pid_t pid, Limit limit) {
  const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!process && errno == ESRCH) return;
  pollfd ended = {check_errno(process.get()), POLLIN, 0};
  if (pollUntil(&ended, 1, Clock::now() + limit)) return;
  throw std::runtime_error("process " + std::to_string(pid) + " does not end");
}

Usage usageOf(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  Usage usage;
  std::ifstream status(folder + "/status");
  for (std::string word; status >> word;) {
    if (word == "VmRSS:") status >> usage.resident_kb;
    if (word == "VmHWM:") status >> usage.peak_kb;
    if (word == "Threads:") status >> usage.threads;
  }
  std::error_code gone;
  const std::filesystem::directory_iterator open(folder + "/fd", gone);
  if (!gone) usage.descriptors = static_cast<std::size_t>(std::distance(begin(open), end(open)));
  return usage;
}

}  // namespace orvel::test
