#include "binder/IpcDeathCallback.h"

#include <utility>

namespace vesk {
namespace {

IpcDeathCallback& self(vesk_death_callback* record) {
  return *static_cast<IpcDeathCallback*>(record->context);
}

}  // namespace

IpcDeathCallback::IpcDeathCallback(std::function<void()> listener)
    : m_record{&on_death, &death_acquire, &death_release, this}, m_listener(std::move(listener)) {}

void IpcDeathCallback::release() {
  if (m_ref_count.release()) delete this;
}

void IpcDeathCallback::on_death(void*, vesk_death_callback* record, vesk_handle*) {
  IpcDeathCallback& callback = self(record);
  // The listener destroys the handle that owns this object, which also ends the link, and with it libvesk's reference.
  callback.acquire();
  const struct Release {
    IpcDeathCallback& callback;
    ~Release() { callback.release(); }
  } release{callback};
  callback.m_listener();
}

void IpcDeathCallback::death_acquire(vesk_death_callback* record) {
  self(record).acquire();
}

void IpcDeathCallback::death_release(vesk_death_callback* record) {
  self(record).release();
}

}  // namespace vesk
