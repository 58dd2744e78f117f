#include "binder/Waiting.h"

#include <pthread.h>

#include <algorithm>
#include <ctime>
#include <mutex>
#include <utility>

#include "binder/ThreadAnnotations.h"

namespace orvel::service_apis::waiting {
namespace {

// How many times faster than the machine's clock the library's runs. Soak builds raise it: a rebind that takes 306 s
// then takes a few.
#ifndef ORVEL_CLOCK_SPEED
#define ORVEL_CLOCK_SPEED 1
#endif
constexpr int kSpeed = ORVEL_CLOCK_SPEED;
static_assert(kSpeed >= 1);

// A condition variable whose deadlines are the steady clock's on every platform. The standard one needs
// pthread_cond_clockwait for that, which bionic has from API level 30 on; below, it waits on the wall clock, and a wall
// clock that is set back by an hour would make a wait an hour longer.
class SteadyCondition {
 public:
  SteadyCondition() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);  // std::chrono::steady_clock's in libc++ and libstdc++
    pthread_cond_init(&m_condition, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~SteadyCondition() { pthread_cond_destroy(&m_condition); }

  SteadyCondition(const SteadyCondition&) = delete;
  SteadyCondition& operator=(const SteadyCondition&) = delete;

  void notify_all() { pthread_cond_broadcast(&m_condition); }

  // True when it was notified, or woke up by accident; false when `deadline` has passed. Unlocks `mutex` meanwhile.
  [[nodiscard]] bool wait_until(std::mutex& mutex, TimePoint deadline) ORVEL_REQUIRES(mutex) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(deadline);
    timespec until = {};
    until.tv_sec = static_cast<std::time_t>(seconds.time_since_epoch().count());
    until.tv_nsec = static_cast<long>(std::chrono::nanoseconds(deadline - seconds).count());
    return pthread_cond_timedwait(&m_condition, mutex.native_handle(), &until) == 0;
  }

 private:
  pthread_cond_t m_condition = {};
};

struct Interrupts {
  std::mutex mutex;
  SteadyCondition raised;
  int count ORVEL_GUARDED_BY(mutex) = 0;
};

// Never destroyed: the client's destructor, which runs as an exit handler, interrupts sleeps.
Interrupts& interrupts() {
  static Interrupts& instance = *new Interrupts;
  return instance;
}

}  // namespace

TimePoint now() {
  using Clock = std::chrono::steady_clock;
  static const TimePoint start = Clock::now();
  return start + (Clock::now() - start) * kSpeed;
}

bool sleep_for(std::chrono::nanoseconds duration) {
  Interrupts& state = interrupts();
  const TimePoint end = std::chrono::steady_clock::now() + duration / kSpeed;
  const std::lock_guard<std::mutex> lock(state.mutex);
  while (state.count == 0) {
    if (!state.raised.wait_until(state.mutex, end)) return state.count == 0;
  }
  return false;
}

// Bells share the condition of the sleeps: they are rare, and an interrupt ends their waits too.
struct Bell::State {
  bool rung = false;  // guarded by the mutex of the interrupts
};

Bell::Bell() : m_state(std::make_unique<State>()) {}
Bell::~Bell() = default;

bool Bell::wait(std::chrono::nanoseconds limit) {
  constexpr std::chrono::hours kLongest(24 * 365);  // The end of a longer wait may be beyond what the clock can tell.
  Interrupts& state = interrupts();
  const TimePoint end = std::chrono::steady_clock::now() + std::min<std::chrono::nanoseconds>(limit, kLongest) / kSpeed;
  const std::lock_guard<std::mutex> lock(state.mutex);
  while (state.count == 0 && !m_state->rung) {
    if (!state.raised.wait_until(state.mutex, end)) break;
  }
  return std::exchange(m_state->rung, false) && state.count == 0;
}

void Bell::ring() {
  Interrupts& state = interrupts();
  const std::lock_guard<std::mutex> lock(state.mutex);
  m_state->rung = true;
  state.raised.notify_all();
}

void Mutex::lock() {
  m_mutex.lock();
}

void Mutex::unlock() {
  m_mutex.unlock();
}

void Condition::wait(std::mutex& mutex) {
  std::unique_lock<std::mutex> lock(mutex, std::adopt_lock);
  m_changed.wait(lock);
  lock.release();  // the caller owns the mutex again
}

void Condition::notify_all() {
  m_changed.notify_all();
}

// The machine's clock needs to know of no thread.
Background::Background() = default;
Background::~Background() = default;

bool interrupted() {
  Interrupts& state = interrupts();
  const std::lock_guard<std::mutex> lock(state.mutex);
  return state.count > 0;
}

Interrupt::Interrupt() {
  Interrupts& state = interrupts();
  const std::lock_guard<std::mutex> lock(state.mutex);
  ++state.count;
  state.raised.notify_all();
}

Interrupt::~Interrupt() {
  Interrupts& state = interrupts();
  const std::lock_guard<std::mutex> lock(state.mutex);
  --state.count;
}

}  // namespace orvel::service_apis::waiting
