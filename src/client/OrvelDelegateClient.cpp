#include "orvel/OrvelDelegateClient.h"

#include "binder/Process.h"
#include "client/ClientState.h"

namespace orvel::service_apis {

OrvelDelegateClient& OrvelDelegateClient::getClient() {
  static OrvelDelegateClient client;
  return client;
}

// Never destroyed: at exit another thread may still be inside a method, or be the run loop's.
OrvelDelegateClient::OrvelDelegateClient() : m_state(*new ClientState) {}

OrvelDelegateClient::~OrvelDelegateClient() {
  if (in_forked_child()) return;  // the client belongs to the parent
  if (ClientState::on_run_loop_thread()) {
    // A callback called exit(). This thread cannot wait for itself, so thread and proxies stay as they are.
    m_state.stop_for_good();
  } else {
    shutdown();
  }
}

bool OrvelDelegateClient::initialize() {
  return m_state.initialize();
}

void OrvelDelegateClient::shutdown() {
  m_state.shutdown();
}

}  // namespace orvel::service_apis
