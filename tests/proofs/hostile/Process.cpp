#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace orvel::hostile {

Process::Process(const std::vector<std::string>& arguments,
                 const std::vector<std::pair<std::string, std::string>>& environment, const std::string& log) {
  int input[2];
  int output[2];
  vesk::check_errno(::pipe2(input, O_CLOEXEC));
  vesk::check_errno(::pipe2(output, O_CLOEXEC));
  const vesk::UniqueFd child_input(input[0]);
  const vesk::UniqueFd child_output(output[1]);
  m_input.reset(input[1]);
  m_output.reset(output[0]);

  std::vector<std::string> variables;
  for (char** each = environ; *each != nullptr; ++each) {
    const std::string variable = *each;
    bool replaced = false;
    for (const auto& [name, value] : environment)
      replaced = replaced || variable.compare(0, name.size() + 1, name + '=') == 0;
    if (!replaced) variables.push_back(variable);
  }
  for (const auto& [name, value] : environment) variables.push_back(name + '=' + value);
  const auto pointers = [](const std::vector<std::string>& texts) {
    std::vector<char*> list;
    list.reserve(texts.size() + 1);
    for (const std::string& text : texts) list.push_back(const_cast<char*>(text.c_str()));
    list.push_back(nullptr);
    return list;
  };

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, child_input.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, child_output.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  const int error = ::posix_spawnp(&m_pid, arguments.front().c_str(), &actions, nullptr, pointers(arguments).data(),
                                   pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), arguments.front());
}

Process::~Process() {
  if (!is_alive()) return;
  ::kill(m_pid, SIGKILL);
  ::waitpid(m_pid, nullptr, 0);
}

void Process::take_status(int status) {
  m_ended = true;
  m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Process::is_alive() {
  int status = 0;
  if (!m_ended && ::waitpid(m_pid, &status, WNOHANG) == m_pid) take_status(status);
  return !m_ended;
}

std::string Process::read_line(int limit_ms) {
  while (m_pending.find('\n') == std::string::npos) {
    pollfd ready{m_output.get(), POLLIN, 0};
    char bytes[4096];
    if (::poll(&ready, 1, limit_ms) <= 0) return {};
    const ssize_t size = ::read(m_output.get(), bytes, sizeof(bytes));
    if (size <= 0) return {};
    m_pending.append(bytes, static_cast<std::size_t>(size));
  }
  const std::size_t end = m_pending.find('\n');
  std::string line = m_pending.substr(0, end);
  m_pending.erase(0, end + 1);
  return line;
}

void Process::write_line(const std::string& line) const {
  const std::string text = line + '\n';
  if (::write(m_input.get(), text.data(), text.size()) < 0) vesk::check(-errno);
}

int Process::terminate(int limit_ms) {
  if (is_alive()) ::kill(m_pid, SIGTERM);
  for (; is_alive() && limit_ms > 0; limit_ms -= 10) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return m_status;
}

std::size_t Process::descriptors() const {
  std::error_code gone;
  const std::filesystem::directory_iterator open("/proc/" + std::to_string(m_pid) + "/fd", gone);
  return gone ? 0 : static_cast<std::size_t>(std::distance(begin(open), end(open)));
}

long Process::status_kb(const char* key) const {
  std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
  for (std::string word; status >> word;) {
    long value = 0;
    if (word == key && status >> value) return value;
  }
  return 0;
}

void Process::reset_peak() const {
  std::ofstream("/proc/" + std::to_string(m_pid) + "/clear_refs") << "5";
}

}  // namespace orvel::hostile
