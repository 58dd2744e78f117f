// A mutex that knows which thread holds it.
#pragma once

#include <atomic>
#include <thread>

#include "binder/ThreadAnnotations.h"
#include "binder/Waiting.h"

namespace orvel::service_apis {

// Not recursive: a thread that may hold it already asks held_by_this_thread() first. Threads: any.
class ORVEL_CAPABILITY("mutex") OwnedMutex {
 public:
  void lock() ORVEL_ACQUIRE() {
    m_mutex.lock();
    m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }

  void unlock() ORVEL_RELEASE() {
    m_owner.store(std::thread::id(), std::memory_order_relaxed);
    m_mutex.unlock();
  }

  // Relaxed is enough: only this thread ever stores its own id.
  bool held_by_this_thread() const { return m_owner.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

 private:
  waiting::Mutex m_mutex;
  std::atomic<std::thread::id> m_owner{};
};

}  // namespace orvel::service_apis
