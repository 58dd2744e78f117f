#include <csignal>
#include <cstdlib>
#include <utility>

#include "support/Peer.h"
#include "support/Process.h"

namespace orvel::test {
namespace {

// A device of this program's own, from before main() to the end. The call limit is short for the sake of the few cases
// that wait for it, and long enough that no other case comes near it on a busy machine.
struct PrivateDevice {
  PrivateDevice() {
    ::setenv("ORVEL_RUNTIME_DIR", directory.path().c_str(), 1);
    ::setenv("ORVEL_CALL_TIMEOUT_MS", "3000", 1);
  }
  const TemporaryDirectory directory;
} private_device;

}  // namespace

struct Peer::Form {
  Process process;
};

Peer::Peer(std::string name) : m_name(std::move(name)), m_form(new Form{Process({VESK_PEER, m_name})}) {
  m_form->process.waitForOutput("serves\n");
}

Peer::~Peer() {
  kill();
}

void Peer::kill() {
  if (!m_form->process.hasEnded()) m_form->process.signal(SIGKILL);
  m_form->process.wait();
}

void Peer::wait_for_hanging_call() {
  m_form->process.waitForOutput("hangs\n");
}

void Peer::pass_call_limit() {}  // passes by itself

}  // namespace orvel::test
