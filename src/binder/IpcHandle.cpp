#include "binder/IpcHandle.h"

#include <utility>

namespace vesk {

IpcHandle::IpcHandle(void* runtime, vesk_handle handle) : m_runtime(runtime), m_handle(handle) {
  if (vesk_handle_is_valid(m_runtime, &m_handle)) vesk_handle_acquire(m_runtime, &m_handle);
}

IpcHandle::~IpcHandle() {
  release();
  if (m_death_callback) m_death_callback->release();
}

bool IpcHandle::set_death_listener(std::function<void()> listener) {
  if (!vesk_handle_is_valid(m_runtime, &m_handle)) return false;

  auto* callback = new IpcDeathCallback(std::move(listener));
  callback->acquire();  // the reference of m_death_callback
  if (m_death_callback) m_death_callback->release();
  m_death_callback = callback;

  if (vesk_handle_link_to_death(m_runtime, &m_handle, callback->record()) == 0) return true;
  vesk_handle_unlink_to_death(m_runtime, &m_handle, callback->record());
  return false;
}

void IpcHandle::release() {
  if (!vesk_handle_is_valid(m_runtime, &m_handle)) return;
  if (m_death_callback) vesk_handle_unlink_to_death(m_runtime, &m_handle, m_death_callback->record());
  vesk_handle_release(m_runtime, &m_handle);
  m_handle = vesk_invalid_handle();
}

}  // namespace vesk
