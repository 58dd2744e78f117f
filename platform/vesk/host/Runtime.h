// The process's one runtime: what the C interface calls.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "Loop.h"
#include "OutgoingConnection.h"
#include "PendingBinds.h"
#include "Server.h"
#include "Support.h"
#include "ThreadAnnotations.h"
#include "vesk/vesk.h"

namespace vesk {

// Any thread, unless a part says otherwise. Nothing that this library does holds a lock while it calls out.
class Runtime {
 public:
  // Made at the first use and never destroyed: exit handlers and static destructors may still call.
  static Runtime& instance();

  // Whether this process was forked from one that had a runtime. Its threads, its event loop and its connections stayed
  // with the parent.
  static bool is_forked_child();

  [[nodiscard]] void* handle() { return this; }
  [[nodiscard]] Loop& loop() { return m_loop; }
  [[nodiscard]] Server& server() { return m_server; }
  [[nodiscard]] PendingBinds& binds() { return m_binds; }
  [[nodiscard]] std::chrono::milliseconds call_limit() const { return m_call_limit; }

  // Both print a line that names the directory when they throw.
  void join_device();
  void serve_device();

  void shutdown();

  // Connects to the service called `name` and gives its handle, with `references` of a lookup. Waits for at most `patience` for
  // a service that is slow to say whether it has room; vesk_shutdown ends that. Throws std::system_error, -EAGAIN for one that
  // has none.
  vesk_handle look_up(const char* name, unsigned int references = 1, std::chrono::milliseconds patience = {});

  // Null for a handle that names nothing.
  std::shared_ptr<OutgoingConnection> connection(const vesk_handle& handle);
  int acquire(const vesk_handle& handle);
  int release(const vesk_handle& handle);
  void end_lookup_reference(const vesk_handle& handle, unsigned int count = 1);

  // The service died. Nobody unbinds a dead handle, so the lookup's reference ends by itself; but not before somebody
  // has acquired the handle or heard of the death (`noticed`), or the death would fall between a lookup and its link.
  void end_dead_lookup(const vesk_handle& handle, bool noticed);

 private:
  struct Reference {
    std::shared_ptr<OutgoingConnection> connection;
    unsigned int acquired = 0;
    unsigned int lookups = 1;  // references of lookups that are still held
    bool dead = false;         // they end with the last acquired one
  };

  Runtime();

  // Changes a reference and closes the connection when none is left. -EINVAL for a handle that names nothing.
  template <typename Change>
  int drop(const vesk_handle& handle, const Change& change);

  const std::chrono::milliseconds m_call_limit;
  Loop m_loop;
  Server m_server;
  PendingBinds m_binds;

  std::mutex m_mutex;
  std::unordered_map<std::uint64_t, Reference> m_handles VESK_GUARDED_BY(m_mutex);
  std::uint64_t m_last_handle VESK_GUARDED_BY(m_mutex) = 0;
};

}  // namespace vesk
