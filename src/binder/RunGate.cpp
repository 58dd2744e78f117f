#include "binder/RunGate.h"

#include <mutex>

#include "binder/Waiting.h"

namespace orvel::service_apis {
namespace {

thread_local RunGate::Entry* t_innermost = nullptr;

// Of all gates, because a thread rarely waits at one. Never destroyed: gates are used in exit handlers too.
struct Leaving {
  std::mutex mutex;
  waiting::Condition left;
};
Leaving& leaving() {
  static Leaving& instance = *new Leaving;
  return instance;
}

}  // namespace

RunGate::Entry::Entry(RunGate& gate) : m_gate(gate), m_inside(gate.enter()), m_outer(t_innermost) {
  t_innermost = this;
}

RunGate::Entry::~Entry() {
  t_innermost = m_outer;
  if (m_inside) m_gate.leave();
}

bool RunGate::enter() {
  if ((m_state.fetch_add(kOneEntry) & kClosed) == 0) return true;
  leave();
  return false;
}

void RunGate::leave() {
  if ((m_state.fetch_sub(kOneEntry) & kClosed) == 0) return;
  // It outlives this gate, which the waiting thread may destroy as soon as it sees the count.
  Leaving& state = leaving();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.left.notify_all();
}

void RunGate::wait() {
  const unsigned own = entries_of_this_thread() * kOneEntry;
  Leaving& state = leaving();
  const std::lock_guard<std::mutex> lock(state.mutex);
  while ((m_state.load() & ~kClosed) != own) state.left.wait(state.mutex);
}

bool RunGate::inside_one() {
  return t_innermost != nullptr;
}

unsigned RunGate::entries_of_this_thread() const {
  unsigned entries = 0;
  for (const Entry* entry = t_innermost; entry; entry = entry->m_outer) {
    if (entry->m_inside && &entry->m_gate == this) ++entries;
  }
  return entries;
}

}  // namespace orvel::service_apis
