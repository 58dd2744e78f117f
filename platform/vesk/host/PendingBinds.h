// Binds: services that run are given out at once, the others when they appear.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Handles.h"
#include "Support.h"
#include "ThreadAnnotations.h"
#include "vesk/vesk.h"

namespace vesk {

// One watcher thread exists while at least one bind waits; it follows the directory by inotify. Binds of one name with
// one callback are answered with one handle, so that a caller who asks again and again does not cost a connection each
// time. Any thread.
class PendingBinds {
 public:
  explicit PendingBinds(Handles& handles);

  // Calls back before it returns when `name` is served, else from the watcher as soon as it is. Throws
  // std::system_error.
  void bind(const char* name, vesk_service_bind_callback callback, void* context);

  // Drops what waits. When it returns no callback is running, unless it was called from one.
  void cancel();

 private:
  struct Bind {
    std::string name;
    vesk_service_bind_callback callback;
    void* context;
  };
  class Delivery;

  // Of one name and one callback.
  using Binds = std::list<Bind>;

  [[nodiscard]] int try_bind(Binds& binds, const Delivery& delivery, std::chrono::milliseconds patience);
  void start_watching() VESK_REQUIRES(m_mutex);
  void watch();
  bool try_all();

  Handles& m_handles;
  UniqueFd m_wakeup;

  std::mutex m_mutex;
  std::condition_variable_any m_delivered;
  Binds m_waiting VESK_GUARDED_BY(m_mutex);
  bool m_watching VESK_GUARDED_BY(m_mutex) = false;  // the watcher thread exists
  std::uint64_t m_cancels VESK_GUARDED_BY(m_mutex) = 0;
  std::vector<std::thread::id> m_deliverers VESK_GUARDED_BY(m_mutex);  // who may be inside a callback
};

}  // namespace vesk
