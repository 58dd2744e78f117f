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
  PendingEvents::keep_quiet();
  if (Callback::keeps_shutdown_waiting()) {
    // A callback called exit(). This thread cannot wait for itself, so thread and proxies stay as they are.
    m_state.stop_for_good();
  } else {
    m_state.shutdown();  // telling no callback of it
  }
}

// The links that have changed are told where no lock is held.

bool OrvelDelegateClient::initialize() {
  const bool initialized = m_state.initialize();
  LinkBoard::instance().tell();
  return initialized;
}

void OrvelDelegateClient::shutdown() {
  m_state.shutdown();
  LinkBoard::instance().tell();
}

}  // namespace orvel::service_apis
