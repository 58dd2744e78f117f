// A reference to a remote service, with the listener of its death.
#pragma once

#include <functional>

#include "binder/IpcDeathCallback.h"
#include "vesk/vesk.h"

namespace vesk {

// Holds one reference of its own on the handle, besides the one that the lookup gave. One thread at a time.
class IpcHandle {
 public:
  // An invalid handle is kept as it is and never referenced.
  IpcHandle(void* runtime, vesk_handle handle);
  ~IpcHandle();

  IpcHandle(const IpcHandle&) = delete;
  IpcHandle& operator=(const IpcHandle&) = delete;

  // Has `listener` run once on the run-loop thread when the service dies. False when the handle is invalid or cannot be
  // linked.
  [[nodiscard]] bool set_death_listener(std::function<void()> listener);

  // Ends the death link and the reference; the handle is invalid from then on.
  void release();

  void* runtime() const { return m_runtime; }
  vesk_handle* get() { return &m_handle; }

 private:
  void* m_runtime;
  vesk_handle m_handle;
  IpcDeathCallback* m_death_callback = nullptr;  // owns one of its references
};

}  // namespace vesk
