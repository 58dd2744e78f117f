// The proxies, the run-loop thread and the locks of OrvelDelegateClient.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>
#include <type_traits>

#include "binder/CallRecord.h"
#include "binder/Callback.h"
#include "binder/Disposal.h"
#include "binder/OrvelLogger.h"
#include "binder/Process.h"
#include "binder/ThreadAnnotations.h"
#include "binder/Waiting.h"
#include "client/LibraryThreads.h"
#include "client/OwnedMutex.h"
#include "client/PendingEvents.h"
#include "orvel/StartOptions.h"
#include "services/IActivityManager.h"
#include "services/IAndroidConnectivityManager.h"
#include "services/IDelegateService.h"
#include "services/IOrvelPackageManager.h"
#include "services/IOrvelSimDirectiveClient.h"
#include "services/IOrvelSimEventClient.h"
#include "services/IPowerManagerService.h"
#include "services/ITarselMetric.h"

namespace orvel::service_apis {

// The logger of all sources of the public class.
extern const OrvelLogger& s_client_logger;

// The methods in lowerCamel implement the public methods of their name, because log lines carry the name.
//
// Locks, in order: m_lifecycle, m_facade, m_runtime_mutex, then the Binder's. m_lifecycle keeps initialize() and
// shutdown() from overlapping; the run-loop thread never takes it, because shutdown() holds it while it joins that
// thread. m_facade makes all public methods run one at a time, remote calls included; shutdown() takes it only after
// the join, because a callback may be waiting for it. m_runtime_mutex is held for libvesk's start and stop alone,
// neither of which waits.
//
// Nothing blocks shutdown() for long: its Interrupt ends every sleep, and its vesk_shutdown, which it calls before it
// takes m_lifecycle and m_facade, fails every call in progress.
//
// Each method has a Disposal in front of its locks, so that what users captured is destroyed when they are free.
class ClientState {
 public:
  bool initialize() ORVEL_EXCLUDES(m_lifecycle, m_facade);
  bool start(const StartOptions& options) ORVEL_EXCLUDES(m_lifecycle, m_facade);
  void shutdown() ORVEL_EXCLUDES(m_lifecycle, m_facade);
  bool rebind(Service service) ORVEL_EXCLUDES(m_facade);
  bool isMaroConnected() ORVEL_EXCLUDES(m_facade);
  bool isNetworkConnected() ORVEL_EXCLUDES(m_facade);

  // Returns what `query` makes of the proxy; `failure`, with an error line, while the client is not initialised, inside
  // the connectivity callback and in the child of a fork. Queries run one at a time. `method` is the public method.
  template <typename Proxy, typename Query, typename Result = std::invoke_result_t<Query, Proxy&>>
  Result ask(const char* method, Query query, Result failure = {}) ORVEL_EXCLUDES(m_facade) {
    const CallRecord record(method, Proxy::kService);
    if (refused(method)) return failure;
    const Disposal disposal;
    const std::lock_guard<OwnedMutex> facade(m_facade);
    if (!m_initialized) {
      s_client_logger.e("%s:Client is not initialized", method);
      CallRecord::fail(CallStatus::Code::kNotInitialised, "the client is not initialised");
      return failure;
    }
    return std::invoke(query, *proxy<Proxy>());
  }

  template <typename Proxy, typename Result, typename... Parameters, typename... Arguments>
  Result ask(const char* method, Result (Proxy::*query)(Parameters...), Arguments... arguments)
      ORVEL_EXCLUDES(m_facade) {
    return ask<Proxy>(method, [&](Proxy& proxy) { return (proxy.*query)(arguments...); });
  }

  // Notes whether the assistant is connected and calls `callback`; that under the facade lock too, if told to and where
  // no executor runs it. Run-loop thread.
  void maro_connectivity_changed(bool connected, const StateCallback& callback, bool under_lock)
      ORVEL_EXCLUDES(m_facade);

  // True, with an error line, in the child of a fork.
  static bool refused_in_child(const char* method) { return in_forked_child() && refuse_in_child(method); }

  // The events whose outcome is not told yet.
  PendingEvents& events() { return m_events; }

  // Makes the run loop return after the callback that calls this, because the process ends: nothing is bound or
  // published any more. A thread of the library.
  void stop_for_good() ORVEL_EXCLUDES(m_runtime_mutex);

 private:
  // True, with an error line, inside the connectivity callback, which holds the facade lock, and in the child of a
  // fork.
  bool refused(const char* method) const {
    return refused_in_child(method) || (m_facade.held_by_this_thread() && refuse_in_callback(method));
  }
  // Say so, and return true.
  static bool refuse_in_child(const char* method);
  static bool refuse_in_callback(const char* method);

  // Returns libvesk's error, 0 on success: `runtime` is then libvesk's runtime, and stop_runtime() is due.
  int get_runtime(void** runtime) ORVEL_EXCLUDES(m_runtime_mutex);

  // Calls vesk_shutdown, unless another thread or an earlier call has done so.
  void stop_runtime() ORVEL_EXCLUDES(m_runtime_mutex);

  // The runtime; null, with an error line that begins with `method`, when there is none.
  void* runtime_for(const char* method) ORVEL_EXCLUDES(m_runtime_mutex);

  // True when the proxies and the thread are made; false, with all of it undone, when a shutdown() interrupts.
  bool launch(void* runtime, Binder::Bind bind) ORVEL_REQUIRES(m_lifecycle, m_facade);

  // Initialises the client, unless it is, without waiting for services; false when there is no device or a shutdown()
  // interrupts.
  bool launch_beside() ORVEL_EXCLUDES(m_lifecycle, m_facade);

  // The Binder of the service's proxy.
  Binder& binder_of(Service service) ORVEL_REQUIRES(m_facade);

  // Looks for the service on a thread of its own.
  void bind_beside(Binder& binder);

  template <typename Proxy>
  std::unique_ptr<Proxy>& proxy() ORVEL_REQUIRES(m_facade) {
    return std::get<std::unique_ptr<Proxy>>(m_proxies);
  }

  // True when all proxies are made, in the order given; false as soon as a shutdown() interrupts. Each proxy blocks
  // until its service is bound or given up.
  template <typename... Proxies>
  bool create(void* runtime, Binder::Bind bind) ORVEL_REQUIRES(m_lifecycle, m_facade);

  template <typename... Proxies>
  void destroy() ORVEL_REQUIRES(m_facade);
  void destroy_proxies() ORVEL_REQUIRES(m_facade);

  waiting::Mutex m_lifecycle;
  std::thread m_run_loop ORVEL_GUARDED_BY(m_lifecycle);  // joinable while initialised

  std::mutex m_runtime_mutex;
  void* m_runtime ORVEL_GUARDED_BY(m_runtime_mutex) = nullptr;
  bool m_runtime_runs ORVEL_GUARDED_BY(m_runtime_mutex) = false;  // stop_runtime() is due

  OwnedMutex m_facade;
  bool m_initialized ORVEL_GUARDED_BY(m_facade) = false;
  bool m_maro_connected ORVEL_GUARDED_BY(m_facade) = true;  // assumed until a broadcast says otherwise
  std::tuple<std::unique_ptr<IDelegateService>, std::unique_ptr<IPowerManagerService>,
             std::unique_ptr<IOrvelSimEventClient>, std::unique_ptr<IOrvelSimDirectiveClient>,
             std::unique_ptr<IActivityManager>, std::unique_ptr<ITarselMetric>, std::unique_ptr<IOrvelPackageManager>,
             std::unique_ptr<IAndroidConnectivityManager>>
      m_proxies ORVEL_GUARDED_BY(m_facade);

  LibraryThreads m_beside;  // beside the run loop's
  PendingEvents m_events{m_beside};
};

}  // namespace orvel::service_apis
