#include "vesk/inprocess/Uses.h"

#include <limits>
#include <utility>

namespace vesk::inprocess {

int Uses::enter(const char* operation) {
  std::unique_lock lock(m_mutex);
  const int use = ++m_counts[operation];
  if (++m_all == m_step_at) {
    const Step step = std::exchange(m_step, nullptr);
    lock.unlock();
    step(operation);
    lock.lock();
  }
  for (const Failure& failure : m_failures) {
    if (failure.operation == operation && use >= failure.first && use <= failure.last) return failure.error;
  }
  return 0;
}

void Uses::fail(std::string_view operation, int nth, bool always, int error) {
  const std::lock_guard lock(m_mutex);
  const int first = m_counts[std::string(operation)] + nth;
  m_failures.push_back({std::string(operation), first, always ? std::numeric_limits<int>::max() : first, error});
}

void Uses::at_use(int nth, Step step) {
  const std::lock_guard lock(m_mutex);
  m_step_at = m_all + nth;
  m_step = std::move(step);
}

void Uses::repair() {
  const std::lock_guard lock(m_mutex);
  m_failures.clear();
}

int Uses::of(std::string_view operation) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_counts.find(operation);
  return found == m_counts.end() ? 0 : found->second;
}

int Uses::all() {
  const std::lock_guard lock(m_mutex);
  return m_all;
}

void Uses::reset() {
  const std::lock_guard lock(m_mutex);
  m_counts.clear();
  m_all = m_step_at = 0;
  m_failures.clear();
}

}  // namespace vesk::inprocess
