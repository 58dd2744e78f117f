// A reference to a remote service, with the listener of its death.
#pragma once

#include <functional>

#include "binder/IpcDeathCallback.h"
#include "vesk/vesk.h"

namespace vesk {

// Holds one reference to the handle, besides the lookup's. Threads: any, one at a time.
class IpcHandle {
 public:
  // Takes the reference, unless the handle is invalid. `runtime` is borrowed.
  IpcHandle(void* runtime, vesk_handle handle);
  ~IpcHandle();

  IpcHandle(const IpcHandle&) = delete;
  IpcHandle& operator=(const IpcHandle&) = delete;

  // True when `listener` will run, once, on the run-loop thread, when the service dies; false when the handle is
  // invalid or libvesk refuses the link.
  [[nodiscard]] bool set_death_listener(std::function<void()> listener);

  // Ends the death link and the reference, after which the handle is invalid.
  void release();

  void* runtime() const { return m_runtime; }
  vesk_handle* get() { return &m_handle; }

 private:
  void* m_runtime;
  vesk_handle m_handle;
  IpcDeathCallback* m_death_callback = nullptr;  // owns one of its references
};

}  // namespace vesk
