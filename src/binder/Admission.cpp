#include "binder/Admission.h"

#include <condition_variable>
#include <mutex>

#include "binder/ThreadAnnotations.h"
#include "binder/Waiting.h"

namespace orvel::service_apis {
namespace {

struct Gate {
  std::mutex mutex;
  std::condition_variable left;
  int admitted ORVEL_GUARDED_BY(mutex) = 0;
  int closed ORVEL_GUARDED_BY(mutex) = 0;
};

// Never destroyed: the client's destructor, which runs as an exit handler, closes it.
Gate& gate() {
  static Gate& instance = *new Gate;
  return instance;
}

bool enter() {
  Gate& state = gate();
  const std::lock_guard<std::mutex> lock(state.mutex);
  if (state.closed > 0) return false;
  ++state.admitted;
  return true;
}

}  // namespace

// A shutdown makes its Interrupt before it closes the gate. Operations are refused from the Interrupt on, so that a
// thread whose sleep was interrupted is never admitted afterwards.
Admission::Admission() : m_granted(!waiting::interrupted() && enter()) {}

Admission::~Admission() {
  if (!m_granted) return;
  Gate& state = gate();
  const std::lock_guard<std::mutex> lock(state.mutex);
  if (--state.admitted == 0) state.left.notify_all();
}

Admission::Closed::Closed() {
  Gate& state = gate();
  const std::lock_guard<std::mutex> lock(state.mutex);
  ++state.closed;
  std::unique_lock<std::mutex> waiting(state.mutex, std::adopt_lock);
  while (state.admitted > 0) state.left.wait(waiting);
  waiting.release();  // `lock` owns the mutex again
}

Admission::Closed::~Closed() {
  Gate& state = gate();
  const std::lock_guard<std::mutex> lock(state.mutex);
  --state.closed;
}

}  // namespace orvel::service_apis
