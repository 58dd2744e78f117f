#include "client/ClientState.h"

#include "binder/Waiting.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

const OrvelLogger& s_client_logger = *new OrvelLogger("OrvelDelegateClient");

namespace {

// The runtime whose loop this thread runs; null on every other thread.
thread_local void* t_looping_runtime = nullptr;

void run_loop(void* runtime) {
  t_looping_runtime = runtime;
  vesk_run_loop(runtime);
}

}  // namespace

bool ClientState::on_run_loop_thread() {
  return t_looping_runtime != nullptr;
}

// No lock is needed to know the runtime, nor could one be taken: the thread that holds it may be waiting for this one.
void ClientState::stop_run_loop() {
  vesk_shutdown(t_looping_runtime);
}

bool ClientState::refused(const char* method) const {
  if (!m_facade.held_by_this_thread()) return false;
  s_client_logger.e("%s:Called from the connectivity callback", method);
  return true;
}

bool ClientState::initialize() {
  if (refused(__func__)) return false;
  if (on_run_loop_thread()) {
    // Callbacks run only while the client is initialised, at most a moment before initialize() lets go of this lock.
    const std::lock_guard<OwnedMutex> facade(m_facade);
    s_client_logger.i("%s:Already initialized", __func__);
    return m_initialized;
  }

  const std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  const std::lock_guard<OwnedMutex> facade(m_facade);
  if (m_initialized) {
    s_client_logger.i("%s:Already initialized", __func__);
    return true;
  }
  if (const int error = vesk_get_runtime(&m_runtime); error != 0) {
    s_client_logger.e("%s:Failed to get VESK runtime, error=%d", __func__, error);
    return false;
  }
  if (!m_runtime) {
    s_client_logger.e("%s:VESK runtime is null", __func__);
    return false;
  }
  if (!start()) {
    s_client_logger.e("%s:Interrupted by shutdown", __func__);
    return false;
  }
  m_initialized = true;
  s_client_logger.i("%s:OrvelDelegateClient initialized", __func__);
  return true;
}

template <typename... Proxies>
bool ClientState::create() {
  return ((proxy<Proxies>() = std::make_unique<Proxies>(m_runtime), !waiting::interrupted()) && ...);
}

bool ClientState::start() {
  // On an interruption and on an exception alike.
  struct Undo {
    ClientState* state;
    ~Undo() {
      if (!state) return;
      vesk_shutdown(state->m_runtime);  // drops the binds that are still pending
      state->destroy_proxies();
    }
  } undo{this};

  if (!create<IDelegateService, IPowerManagerService, IOrvelSimEventClient, IOrvelSimDirectiveClient, IActivityManager,
              ITarselMetric, IOrvelPackageManager, IAndroidConnectivityManager>())
    return false;
  m_run_loop = std::thread(run_loop, m_runtime);
  undo.state = nullptr;
  return true;
}

template <typename... Proxies>
void ClientState::destroy() {
  (proxy<Proxies>().reset(), ...);
}

void ClientState::destroy_proxies() {
  // The services see their clients go in this order, which is not that of their creation.
  destroy<IPowerManagerService, IDelegateService, IOrvelSimEventClient, IOrvelSimDirectiveClient, IActivityManager,
          ITarselMetric, IOrvelPackageManager, IAndroidConnectivityManager>();
}

void ClientState::shutdown() {
  if (on_run_loop_thread()) {
    s_client_logger.e("%s:Called from a callback", __func__);
    return;
  }
  s_client_logger.i("%s:OrvelDelegateClient shutting down", __func__);
  const waiting::Interrupt interrupt;
  const std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  const bool running = m_run_loop.joinable();
  if (running) {
    vesk_shutdown(m_runtime);
    m_run_loop.join();
  }
  const std::lock_guard<OwnedMutex> facade(m_facade);
  if (running) {
    // Once more: a registration in progress and the replay of a rebind may have published names after the first.
    vesk_shutdown(m_runtime);
    destroy_proxies();
    m_initialized = false;
  }
  s_client_logger.i("%s:OrvelDelegateClient has shut down", __func__);
}

bool ClientState::isMaroConnected() {
  if (refused(__func__)) return false;
  const std::lock_guard<OwnedMutex> facade(m_facade);
  return m_maro_connected;
}

bool ClientState::isNetworkConnected() {
  if (refused(__func__)) return false;
  // Waits for its turn like every method, although the answer never changes: the state is delivered by notification
  // only.
  const std::lock_guard<OwnedMutex> facade(m_facade);
  return false;
}

void ClientState::maro_connectivity_changed(bool connected, const std::function<void(bool)>& callback) {
  const std::lock_guard<OwnedMutex> facade(m_facade);
  m_maro_connected = connected;
  callback(connected);
}

}  // namespace orvel::service_apis
