#include "support/VirtualClock.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <utility>

#include "binder/Waiting.h"

namespace orvel {
namespace {

using Lock = std::unique_lock<std::mutex>;

std::mutex g_mutex;  // guards everything below; not held while a step runs
std::chrono::nanoseconds g_elapsed{0};
std::vector<long long> g_sleeps;
std::map<std::size_t, std::function<void()>> g_steps;  // by the number of the sleep
int g_interrupts = 0;

}  // namespace

namespace test {

VirtualClock::VirtualClock() {
  const Lock lock(g_mutex);
  g_sleeps.clear();
  g_sleeps.reserve(256);  // so that no sleep allocates, for those who count what the library does
  g_steps.clear();
}

std::vector<long long> VirtualClock::sleeps() const {
  const Lock lock(g_mutex);
  return g_sleeps;
}

void VirtualClock::at_sleep(int nth, std::function<void()> step) {
  const Lock lock(g_mutex);
  g_steps[g_sleeps.size() + static_cast<std::size_t>(nth)] = std::move(step);
}

}  // namespace test

namespace service_apis::waiting {

TimePoint now() {
  const Lock lock(g_mutex);
  return TimePoint(g_elapsed);
}

bool sleep_for(std::chrono::nanoseconds duration) {
  Lock lock(g_mutex);
  if (g_interrupts > 0) return false;
  g_sleeps.push_back(std::chrono::duration_cast<std::chrono::seconds>(duration).count());
  g_elapsed += duration;
  auto step = g_steps.extract(g_sleeps.size());
  lock.unlock();
  if (step) step.mapped()();
  return !interrupted();
}

// A wait for a bell that has not been rung is a sleep that lasts its whole limit.
struct Bell::State {
  bool rung = false;  // guarded by g_mutex
};

Bell::Bell() : m_state(std::make_unique<State>()) {}
Bell::~Bell() = default;

bool Bell::wait(std::chrono::nanoseconds limit) {
  Lock lock(g_mutex);
  if (!m_state->rung) {
    lock.unlock();
    static_cast<void>(sleep_for(limit));
    lock.lock();
  }
  return std::exchange(m_state->rung, false) && g_interrupts == 0;
}

void Bell::ring() {
  const Lock lock(g_mutex);
  m_state->rung = true;
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

Background::Background() = default;
Background::~Background() = default;

bool interrupted() {
  const Lock lock(g_mutex);
  return g_interrupts > 0;
}

Interrupt::Interrupt() {
  const Lock lock(g_mutex);
  ++g_interrupts;
}

Interrupt::~Interrupt() {
  const Lock lock(g_mutex);
  --g_interrupts;
}

}  // namespace service_apis::waiting
}  // namespace orvel
