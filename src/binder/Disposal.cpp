#include "binder/Disposal.h"

#include <utility>

#include "binder/CallRecord.h"

namespace orvel::service_apis {
namespace {

// Linked through the objects themselves, because disposing must not need memory.
thread_local int t_disposals = 0;
thread_local Disposable* t_first = nullptr;
thread_local Disposable* t_last = nullptr;

}  // namespace

Disposal::Disposal() {
  ++t_disposals;
}

Disposal::~Disposal() {
  if (--t_disposals == 0 && t_first) destroy_all();
}

void Disposal::destroy_all() {
  const UserCode user_code;
  // What a destructor disposes of in turn is destroyed at once, because no Disposal exists any more.
  Disposable* object = std::exchange(t_first, nullptr);
  while (object) delete std::exchange(object, object->m_next);
}

void Disposal::dispose(Disposable* object) noexcept {
  if (t_disposals == 0) {
    const UserCode user_code;
    delete object;
    return;
  }
  (t_first ? t_last->m_next : t_first) = object;
  t_last = object;
}

}  // namespace orvel::service_apis
