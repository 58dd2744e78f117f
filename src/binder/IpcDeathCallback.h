// The listener that libvesk runs when the process behind a handle dies.
#pragma once

#include <functional>

#include "binder/RefCount.h"
#include "vesk/vesk.h"

namespace vesk {

// On the heap, shared between the IpcHandle that made it and libvesk: the release that brings the count back to 0
// destroys it. References change on any thread; the listener runs on the run-loop thread.
class IpcDeathCallback {
 public:
  explicit IpcDeathCallback(std::function<void()> listener);

  IpcDeathCallback(const IpcDeathCallback&) = delete;
  IpcDeathCallback& operator=(const IpcDeathCallback&) = delete;

  void acquire() { m_ref_count.acquire(); }
  void release();

  // The record that libvesk knows it by, at the same address. Valid as long as a reference is held.
  vesk_death_callback* record() { return &m_record; }

  static void on_death(void* runtime, vesk_death_callback* record, vesk_handle* handle);
  static void death_acquire(vesk_death_callback* record);
  static void death_release(vesk_death_callback* record);

 private:
  ~IpcDeathCallback() = default;

  vesk_death_callback m_record;  // First: its address is the object's.
  std::function<void()> m_listener;
  RefCount m_ref_count;
};

}  // namespace vesk
