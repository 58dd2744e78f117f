// The clocks of the client and of the device, on one virtual time.
#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>

#include "VirtualTime.h"
#include "binder/Waiting.h"
#include "device/Timer.h"

// ---- The client's ----

namespace orvel::service_apis::waiting {

using testing::VirtualTime;

TimePoint now() {
  return VirtualTime::instance().now();
}

bool sleep_for(std::chrono::nanoseconds duration) {
  VirtualTime::Wait sleep{VirtualTime::Wait::Kind::kSleep};
  return !VirtualTime::instance().wait(sleep, duration);
}

bool interrupted() {
  return VirtualTime::instance().interrupted();
}

struct Bell::State {
  std::mutex mutex;
  bool rung = false;
  VirtualTime::Wait* wait = nullptr;  // of the thread that waits
};

Bell::Bell() : m_state(std::make_unique<State>()) {}
Bell::~Bell() = default;

bool Bell::wait(std::chrono::nanoseconds limit) {
  VirtualTime::Wait wait{VirtualTime::Wait::Kind::kBell};
  {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    if (std::exchange(m_state->rung, false)) return !interrupted();
    m_state->wait = &wait;
  }
  const std::chrono::nanoseconds longest = std::chrono::hours(24 * 365);
  VirtualTime::instance().wait(wait, std::min(limit, longest));
  const std::lock_guard<std::mutex> lock(m_state->mutex);
  m_state->wait = nullptr;
  return std::exchange(m_state->rung, false) && !interrupted();
}

void Bell::ring() {
  const std::lock_guard<std::mutex> lock(m_state->mutex);
  m_state->rung = true;
  if (m_state->wait) VirtualTime::instance().end(*m_state->wait);
}

void Mutex::lock() {
  VirtualTime::instance().lock(m_mutex);
}

void Mutex::unlock() {
  m_mutex.unlock();
  VirtualTime::instance().release(&m_mutex);
}

// Under the lock that guards the condition, until the thread counts as waiting: notify_all() cannot come in between.
void Condition::wait(std::mutex& mutex) {
  VirtualTime::Blocked blocked{this};
  VirtualTime::instance().begin(blocked);
  std::unique_lock<std::mutex> lock(mutex, std::adopt_lock);
  m_changed.wait(lock);
  lock.release();  // the caller owns the mutex again
  VirtualTime::instance().end(blocked);
}

void Condition::notify_all() {
  VirtualTime::instance().release(this);
  m_changed.notify_all();
}

Background::Background() {
  VirtualTime::instance().count_beside(+1);
}

Background::~Background() {
  VirtualTime::instance().count_beside(-1);
}

Interrupt::Interrupt() {
  VirtualTime::instance().interrupt();
}

Interrupt::~Interrupt() {
  VirtualTime::instance().end_interrupt();
}

}  // namespace orvel::service_apis::waiting

// ---- The device's ----

namespace orvel::sim {

using testing::VirtualTime;

Clock::time_point Clock::now() {
  return VirtualTime::instance().now();
}

Timer::Timer(void*, std::chrono::milliseconds delay, std::function<void()> action, Series series)
    : m_action(std::move(action)) {
  const auto fire = [this] {
    const auto due = std::move(m_action);  // which may destroy this
    due();
  };
  m_running.reset(
      new VirtualTime::TimerId(VirtualTime::instance().start_timer(delay, fire, series == Series::kEndless)));
}

void Timer::Stop::operator()(void* running) const {
  const std::unique_ptr<VirtualTime::TimerId> timer(static_cast<VirtualTime::TimerId*>(running));
  VirtualTime::instance().stop_timer(*timer);
}

}  // namespace orvel::sim
