#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "support/Peer.h"
#include "support/Process.h"

namespace orvel::test {
namespace {

// A device of this program's own, from before main() to the end. The call limit is short for the sake of the one case
// that waits for it, and long enough that no other case comes near it on a busy machine.
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

struct Peer::Form {
  Process process;
};

Peer::Peer(std::string name) : m_name(std::move(name)), m_form(new Form{Process({VESK_PEER, m_name})}) {
  m_form->process.read();  // serves
}

Peer::~Peer() = default;
void Peer::kill() {
  m_form->process.end(SIGKILL);
}
void Peer::wait_for_hanging_call() {
  m_form->process.read();
}
void Peer::pass_call_limit() {}  // passes by itself

}  // namespace orvel::test
