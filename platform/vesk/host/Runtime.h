// The process's one runtime: what the C interface calls.
#pragma once

#include "Handles.h"
#include "Loop.h"
#include "PendingBinds.h"
#include "Server.h"

namespace vesk {

// Any thread, unless a part says otherwise. Nothing that this library does holds a lock while it calls out.
class Runtime {
 public:
  // Made at the first use and never destroyed: exit handlers and static destructors may still call.
  static Runtime& instance();

  // Whether this process was forked from one that had a runtime. Its threads, its event loop and its connections stayed
  // with the parent.
  static bool is_forked_child();

  [[nodiscard]] Loop& loop() { return m_loop; }
  [[nodiscard]] Server& server() { return m_server; }
  [[nodiscard]] PendingBinds& binds() { return m_binds; }
  [[nodiscard]] Handles& handles() { return m_handles; }

  // Both print a line that names the directory when they throw.
  void join_device();
  void serve_device();

  void shutdown();

 private:
  Runtime();

  Loop m_loop;
  Server m_server;
  Handles m_handles;
  PendingBinds m_binds;
};

}  // namespace vesk
