#include "binder/Waiting.h"

#include <condition_variable>
#include <mutex>

#include "binder/ThreadAnnotations.h"

namespace orvel::service_apis::waiting {
namespace {

// How many times faster than the machine's the library's clock runs. Soak builds raise it: a rebind that takes 306 s
// then takes one or two.
#ifndef ORVEL_CLOCK_SPEED
#define ORVEL_CLOCK_SPEED 1
#endif
constexpr int kSpeed = ORVEL_CLOCK_SPEED;
static_assert(kSpeed >= 1);

struct Interrupts {
  std::mutex mutex;
  std::condition_variable_any raised;
  int count ORVEL_GUARDED_BY(mutex) = 0;
};

// Never destroyed: the client's destructor, an exit handler, interrupts waits.
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
    if (state.raised.wait_until(state.mutex, end) == std::cv_status::timeout) return state.count == 0;
  }
  return false;
}

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
