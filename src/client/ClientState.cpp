#include "client/ClientState.h"

#include <optional>

#include "binder/Admission.h"
#include "binder/Process.h"
#include "binder/Waiting.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

const OrvelLogger& s_client_logger = *new OrvelLogger("OrvelDelegateClient");

namespace {

thread_local bool t_is_run_loop = false;

// As long as one exists, no sleep of the library goes on, and the library binds and publishes nothing.
struct Stopping {
  const waiting::Interrupt interrupt;  // First: a thread that is not admitted must find itself interrupted.
  const Admission::Closed closed;
};

}  // namespace

bool ClientState::on_run_loop_thread() {
  return t_is_run_loop;
}

void ClientState::stop_for_good() {
  static const Stopping& for_good = *new Stopping;  // never destroyed: the process ends
  static_cast<void>(for_good);
  stop_runtime();
}

bool ClientState::refused(const char* method) const {
  if (in_forked_child()) {
    s_client_logger.e("%s:Called in the child of a fork", method);
    return true;
  }
  if (!m_facade.held_by_this_thread()) return false;
  s_client_logger.e("%s:Called from the connectivity callback", method);
  return true;
}

int ClientState::get_runtime(void** runtime) {
  const std::lock_guard<std::mutex> lock(m_runtime_mutex);
  const int error = vesk_get_runtime(&m_runtime);
  *runtime = m_runtime;
  m_runtime_runs = error == 0 && m_runtime != nullptr;
  set_client_running(m_runtime_runs);
  return error;
}

void ClientState::stop_runtime() {
  const std::lock_guard<std::mutex> lock(m_runtime_mutex);
  if (m_runtime_runs) vesk_shutdown(m_runtime);
  m_runtime_runs = false;
}

bool ClientState::initialize() {
  if (refused(__func__)) return false;
  if (on_run_loop_thread()) {
    // Callbacks run only while the client is initialised or initialize() is about to let go of this lock.
    const std::lock_guard<OwnedMutex> facade(m_facade);
    s_client_logger.i("%s:Already initialized", __func__);
    return m_initialized;
  }

  const Disposal disposal;
  const std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  const std::lock_guard<OwnedMutex> facade(m_facade);
  if (m_initialized) {
    s_client_logger.i("%s:Already initialized", __func__);
    return true;
  }
  void* runtime = nullptr;
  if (const int error = get_runtime(&runtime); error != 0) {
    s_client_logger.e("%s:Failed to get VESK runtime, error=%d", __func__, error);
    return false;
  }
  if (!runtime) {
    s_client_logger.e("%s:VESK runtime is null", __func__);
    return false;
  }
  if (!start(runtime)) {
    s_client_logger.e("%s:Interrupted by shutdown", __func__);
    return false;
  }
  m_initialized = true;
  s_client_logger.i("%s:OrvelDelegateClient initialized", __func__);
  return true;
}

template <typename... Proxies>
bool ClientState::create(void* runtime) {
  return ((proxy<Proxies>() = std::make_unique<Proxies>(runtime), !waiting::interrupted()) && ...);
}

bool ClientState::start(void* runtime) {
  // Runs on an interruption and on an exception.
  struct Undo {
    ClientState* state;
    ~Undo() {
      if (!state) return;
      state->stop_runtime();  // libvesk drops the binds that are still pending
      state->destroy_proxies();
      set_client_running(false);
    }
  } undo{this};

  if (!create<IDelegateService, IPowerManagerService, IOrvelSimEventClient, IOrvelSimDirectiveClient, IActivityManager,
              ITarselMetric, IOrvelPackageManager, IAndroidConnectivityManager>(runtime)) {
    return false;
  }
  m_run_loop = start_library_thread("orvel-loop", [runtime] {
    t_is_run_loop = true;
    vesk_run_loop(runtime);
  });
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
  if (on_run_loop_thread() || in_forked_child()) {
    s_client_logger.e("%s:Called %s", __func__, in_forked_child() ? "in the child of a fork" : "from a callback");
    return;
  }
  s_client_logger.i("%s:OrvelDelegateClient shutting down", __func__);
  const Disposal disposal;
  std::optional<Stopping> stopping(std::in_place);
  stop_runtime();  // Before m_lifecycle: initialize() may hold that lock in a call that hangs.
  const std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  const bool running = m_run_loop.joinable();
  if (running) {
    stop_runtime();  // for an initialize() that has succeeded since the first
    m_run_loop.join();
  }
  const std::lock_guard<OwnedMutex> facade(m_facade);
  if (running) {
    destroy_proxies();
    m_initialized = false;
    set_client_running(false);
  }
  s_client_logger.i("%s:OrvelDelegateClient has shut down", __func__);
  stopping.reset();  // Before m_lifecycle is free: this shutdown must not interrupt an initialize() that waits for it.
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

void ClientState::maro_connectivity_changed(bool connected, const StateCallback& callback) {
  const std::lock_guard<OwnedMutex> facade(m_facade);
  m_maro_connected = connected;
  callback(connected);
}

}  // namespace orvel::service_apis
