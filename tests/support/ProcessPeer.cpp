#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "support/Peer.h"

namespace orvel::test {
namespace {

// A device of this program's own, from before main() to the end. The call limit is short for the sake of the few cases that
// wait for it, and long enough that no other case comes near it on a busy machine.
struct PrivateDevice {
  PrivateDevice() {
    if (::mkdtemp(directory) == nullptr) throw std::runtime_error("no directory for the device");
    ::setenv("ORVEL_RUNTIME_DIR", directory, 1);
    ::setenv("ORVEL_CALL_TIMEOUT_MS", "3000", 1);
  }
  ~PrivateDevice() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }
  char directory[32] = "/tmp/vesk-contract-XXXXXX";
} private_device;

}  // namespace

// The process, and the pipe that is its standard output.
struct Peer::Form {
  explicit Form(std::string name) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    output = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::string program = VESK_PEER;
    char* const arguments[] = {program.data(), name.data(), nullptr};
    const int error = ::posix_spawn(&process, arguments[0], &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    if (error != 0) throw std::runtime_error("cannot run " + program);
  }
  ~Form() { ::close(output); }
  Form(const Form&) = delete;
  Form& operator=(const Form&) = delete;

  void wait_for_byte() const {
    char byte = 0;
    if (::read(output, &byte, 1) != 1) throw std::runtime_error("the peer has ended");
  }

  pid_t process = 0;  // 0 once it has been waited for
  int output = -1;
};

Peer::Peer(std::string name) : m_name(std::move(name)), m_form(std::make_unique<Form>(m_name)) {
  m_form->wait_for_byte();  // it serves
}

Peer::~Peer() {
  kill();
}

void Peer::kill() {
  if (m_form->process == 0) return;
  ::kill(m_form->process, SIGKILL);
  ::waitpid(m_form->process, nullptr, 0);
  m_form->process = 0;
}

void Peer::wait_for_hanging_call() {
  m_form->wait_for_byte();
}

void Peer::pass_call_limit() {}  // passes by itself

}  // namespace orvel::test
