#include "support/VirtualClock.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <utility>

#include "binder/Waiting.h"

namespace orvel {
namespace {

using Lock = std::unique_lock<std::mutex>;

std::mutex g_mutex;  // guards everything below; not held while a step runs
std::condition_variable g_changed;
std::chrono::nanoseconds g_elapsed{0};
std::vector<long long> g_sleeps;
std::map<std::size_t, std::function<void()>> g_steps;  // by the number of the sleep
bool g_stopped = false;
int g_sleepers = 0;
int g_interrupts = 0;

}  // namespace

namespace test {

VirtualClock::VirtualClock() {
  const Lock lock(g_mutex);
  g_sleeps.clear();
  g_sleeps.reserve(256);  // so that no sleep allocates, for those who count what the library does
  g_steps.clear();
  g_stopped = false;
}

std::vector<long long> VirtualClock::sleeps() const {
  const Lock lock(g_mutex);
  return g_sleeps;
}

void VirtualClock::at_sleep(int nth, std::function<void()> step) {
  const Lock lock(g_mutex);
  g_steps[g_sleeps.size() + static_cast<std::size_t>(nth)] = std::move(step);
}

void VirtualClock::stop() {
  const Lock lock(g_mutex);
  g_stopped = true;
}

void VirtualClock::wait_for_sleeper() {
  Lock lock(g_mutex);
  g_changed.wait(lock, [] { return g_sleepers > 0; });
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
  if (g_stopped) {
    ++g_sleepers;
    g_changed.notify_all();
    g_changed.wait(lock, [] { return g_interrupts > 0; });
    --g_sleepers;
    return false;
  }
  g_elapsed += duration;
  auto step = g_steps.extract(g_sleeps.size());
  lock.unlock();
  if (step) step.mapped()();
  return true;
}

bool interrupted() {
  const Lock lock(g_mutex);
  return g_interrupts > 0;
}

Interrupt::Interrupt() {
  const Lock lock(g_mutex);
  ++g_interrupts;
  g_changed.notify_all();
}

Interrupt::~Interrupt() {
  const Lock lock(g_mutex);
  --g_interrupts;
}

}  // namespace service_apis::waiting
}  // namespace orvel
