#include "Programs.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace bench {
namespace {

std::string pathOf(const std::string& program) {
  if (program.find('/') != std::string::npos) return program;
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / program;
}

// The wait status, or -1.
int runOnce(const std::string& program, const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int failed = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = -1;
  if (failed == 0) ::waitpid(pid, &status, 0);
  return status;
}

}  // namespace

void runProgram(benchmark::State& state, const std::vector<std::string>& words) {
  const std::string program = pathOf(words.front());
  for (auto _ : state) {
    if (runOnce(program, words) != 0) return state.SkipWithError((program + " failed").c_str());
  }
}

}  // namespace bench
