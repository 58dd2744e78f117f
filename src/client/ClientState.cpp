#include "client/ClientState.h"

#include <memory>
#include <optional>

#include "binder/Admission.h"
#include "binder/Process.h"
#include "binder/Waiting.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

const OrvelLogger& s_client_logger = *new OrvelLogger("OrvelDelegateClient");

namespace {

// As long as one exists, no sleep of the library goes on, and the library binds and publishes nothing.
struct Stopping {
  const waiting::Interrupt interrupt;  // First: a thread that is not admitted must find itself interrupted.
  const Admission::Closed closed;
};

}  // namespace

void ClientState::stop_for_good() {
  static const Stopping& for_good = *new Stopping;  // never destroyed: the process ends
  static_cast<void>(for_good);
  stop_runtime();
}

bool ClientState::refuse_in_child(const char* method) {
  s_client_logger.e("%s:Called in the child of a fork", method);
  CallRecord::fail(CallStatus::Code::kRefused, "called in the child of a fork");
  return true;
}

bool ClientState::refuse_in_callback(const char* method) {
  s_client_logger.e("%s:Called from the connectivity callback", method);
  CallRecord::fail(CallStatus::Code::kRefused, "called from the connectivity callback");
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

void* ClientState::runtime_for(const char* method) {
  void* runtime = nullptr;
  if (const int error = get_runtime(&runtime); error != 0) {
    s_client_logger.e("%s:Failed to get VESK runtime, error=%d", method, error);
    CallRecord::fail(CallStatus::Code::kFailed, "there is no device", error);
    return nullptr;
  }
  if (!runtime) {
    s_client_logger.e("%s:VESK runtime is null", method);
    CallRecord::fail(CallStatus::Code::kFailed, "there is no device");
  }
  return runtime;
}

bool ClientState::initialize() {
  const CallRecord record(__func__);
  if (refused(__func__)) return false;
  if (Callback::keeps_shutdown_waiting()) {
    // Callbacks run only while the client is initialised or initialize() is about to let go of this lock.
    const std::lock_guard<OwnedMutex> facade(m_facade);
    s_client_logger.i("%s:Already initialized", __func__);
    return m_initialized;
  }

  const Disposal disposal;
  const std::lock_guard<waiting::Mutex> lifecycle(m_lifecycle);
  const std::lock_guard<OwnedMutex> facade(m_facade);
  if (m_initialized) {
    s_client_logger.i("%s:Already initialized", __func__);
    return true;
  }
  void* const runtime = runtime_for(__func__);
  if (!runtime) return false;
  if (!launch(runtime, Binder::Bind::kNow)) {
    s_client_logger.e("%s:Interrupted by shutdown", __func__);
    CallRecord::fail(CallStatus::Code::kNotInitialised, "shutdown() has interrupted");
    return false;
  }
  s_client_logger.i("%s:OrvelDelegateClient initialized", __func__);
  return true;
}

template <typename... Proxies>
bool ClientState::create(void* runtime, Binder::Bind bind) {
  return ((proxy<Proxies>() = std::make_unique<Proxies>(runtime, bind), !waiting::interrupted()) && ...);
}

bool ClientState::launch(void* runtime, Binder::Bind bind) {
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
              ITarselMetric, IOrvelPackageManager, IAndroidConnectivityManager>(runtime, bind)) {
    return false;
  }
  Callback::begin_life();
  const auto begins = std::make_shared<std::optional<waiting::Background>>(std::in_place);
  m_run_loop = start_library_thread("orvel-loop", [runtime, begins] {
    LinkBoard::instance().tell();  // what initialize() could not, under its locks
    begins->reset();
    vesk_run_loop(runtime);
  });
  undo.state = nullptr;
  m_initialized = true;
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
  const CallRecord record(__func__);
  if (Callback::keeps_shutdown_waiting() || in_forked_child()) {
    const std::string where = in_forked_child() ? "in the child of a fork" : "from a callback";
    s_client_logger.e("%s:Called %s", __func__, where.c_str());
    CallRecord::fail(CallStatus::Code::kRefused, "called " + where);
    return;
  }
  s_client_logger.i("%s:OrvelDelegateClient shutting down", __func__);
  const Disposal disposal;
  std::optional<Stopping> stopping(std::in_place);
  stop_runtime();  // Before m_lifecycle: initialize() may hold that lock in a call that hangs.
  const std::lock_guard<waiting::Mutex> lifecycle(m_lifecycle);
  const bool running = m_run_loop.joinable();
  if (running) {
    stop_runtime();  // for an initialize() that has succeeded since the first
    m_run_loop.join();
    m_beside.join();
    Callback::end_life();
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
  const CallRecord record(__func__);
  if (refused(__func__)) return false;
  const std::lock_guard<OwnedMutex> facade(m_facade);
  return m_maro_connected;
}

bool ClientState::isNetworkConnected() {
  const CallRecord record(__func__);
  if (refused(__func__)) return false;
  // Waits for its turn like every method, although the answer never changes: the state is delivered by notification
  // only.
  const std::lock_guard<OwnedMutex> facade(m_facade);
  return false;
}

void ClientState::maro_connectivity_changed(bool connected, const StateCallback& callback, bool under_lock) {
  callback.wait_for_turn();
  {
    const Disposal disposal;
    const std::lock_guard<OwnedMutex> facade(m_facade);
    m_maro_connected = connected;
    if (under_lock && !Callback::executor()) {
      callback.now(connected);
      return;
    }
  }
  callback.now(connected);
}

}  // namespace orvel::service_apis
