#include "VirtualTime.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "binder/Process.h"
#include "vesk/inprocess/InprocessVesk.h"

namespace orvel::testing {

namespace {

thread_local std::string t_missed;
thread_local bool t_in_act = false;

// Whether the thread is none of the client's own.
bool is_outside(VirtualTime::Who who) {
  return who == VirtualTime::kTest || who == VirtualTime::kAct;
}

}  // namespace

// Never destroyed: the client's destructor, an exit handler, interrupts waits.
VirtualTime& VirtualTime::instance() {
  static VirtualTime& time = *new VirtualTime;
  return time;
}

VirtualTime::Who VirtualTime::this_thread() {
  if (vesk::inprocess::InprocessVesk::on_run_loop()) return kLoop;
  if (service_apis::on_library_thread()) return kBeside;
  return t_in_act ? kAct : kTest;
}

VirtualTime::TimePoint VirtualTime::now() {
  const Lock lock(m_mutex);
  return m_now;
}

void VirtualTime::run_device() {
  Lock lock(m_mutex);
  m_device_stops = false;
  m_acts_end = false;
  m_alive.clear();
  while (!m_device_stops) {
    Task task;
    if (!m_tasks.empty()) {
      task = std::move(m_tasks.front());
      m_tasks.pop_front();
    } else if (timer_is_due()) {
      task = std::move(m_timers.begin()->second.task);
      m_timers.erase(m_timers.begin());
    } else {
      m_changed.wait(lock);
      continue;
    }
    m_device_busy = true;
    lock.unlock();
    task();
    task = {};
    lock.lock();
    m_device_busy = false;
    m_changed.notify_all();
  }
  m_tasks.clear();
}

void VirtualTime::stop_device() {
  const Lock lock(m_mutex);
  m_device_stops = true;
  m_changed.notify_all();
}

void VirtualTime::post(Task task) {
  const Lock lock(m_mutex);
  m_tasks.push_back(std::move(task));
  m_changed.notify_all();
}

VirtualTime::TimerId VirtualTime::start_timer(Duration delay, Task task, bool endless) {
  const Lock lock(m_mutex);
  const TimerId id(m_now + std::max(delay, Duration::zero()), ++m_last_id);
  m_timers.emplace(id, Timer{std::move(task), endless});
  m_changed.notify_all();
  return id;
}

void VirtualTime::stop_timer(const TimerId& timer) {
  Task dropped;  // destroyed after the lock
  const Lock lock(m_mutex);
  const auto found = m_timers.find(timer);
  if (found == m_timers.end()) return;
  dropped = std::move(found->second.task);
  m_timers.erase(found);
  m_changed.notify_all();
}

bool VirtualTime::wait(Wait& wait, Duration limit) {
  Lock lock(m_mutex);
  const bool calls = wait.kind == Wait::Kind::kCall;
  if (!calls && m_interrupts > 0) return true;
  wait.who = this_thread();
  if (!wait.over) {
    wait.id = {m_now + limit, ++m_last_id};
    m_waits.emplace(wait.id, &wait);
    ++m_waiting.at(wait.who);
    if (wait.kind == Wait::Kind::kSleep) {
      wait.missed = t_missed;
      if (is_outside(wait.who)) ++m_sleepers;
    }
    m_changed.notify_all();
  }
  while (!wait.over) {
    if (!calls && !is_outside(wait.who)) {
      m_changed.wait(lock);
    } else {
      pass(lock, TimePoint::max());
    }
  }
  return !wait.expired;
}

void VirtualTime::end(Wait& wait) {
  const Lock lock(m_mutex);
  finish(wait, false);
}

// The thread that waits counts as running from here on, and not only once it does.
void VirtualTime::finish(Wait& wait, bool expired) {
  if (wait.over) return;
  wait.over = true;
  wait.expired = expired;
  if (m_waits.erase(wait.id) == 0) return;  // it has not begun yet
  --m_waiting.at(wait.who);
  if (wait.kind == Wait::Kind::kSleep && is_outside(wait.who)) --m_sleepers;
  m_changed.notify_all();
}

void VirtualTime::add(Blocked& blocked) {
  blocked.who = this_thread();
  m_blocked.push_back(&blocked);
  ++m_waiting.at(blocked.who);
  m_changed.notify_all();
}

bool VirtualTime::remove(const Blocked& blocked) {
  const auto found = std::find(m_blocked.begin(), m_blocked.end(), &blocked);
  if (found == m_blocked.end()) return false;
  m_blocked.erase(found);
  --m_waiting.at(blocked.who);
  return true;
}

void VirtualTime::begin(Blocked& blocked) {
  const Lock lock(m_mutex);
  add(blocked);
}

void VirtualTime::end(Blocked& blocked) {
  const Lock lock(m_mutex);
  remove(blocked);
}

void VirtualTime::release(const void* on) {
  const Lock lock(m_mutex);
  const std::vector<Blocked*> all = m_blocked;
  for (const Blocked* blocked : all) {
    if (blocked->on == on) remove(*blocked);
  }
  m_changed.notify_all();
}

void VirtualTime::lock(std::mutex& mutex) {
  if (mutex.try_lock()) return;
  Lock lock(m_mutex);
  while (!mutex.try_lock()) {
    Blocked blocked{&mutex};
    add(blocked);
    m_changed.wait(lock, [&] { return std::find(m_blocked.begin(), m_blocked.end(), &blocked) == m_blocked.end(); });
  }
}

void VirtualTime::end_calls() {
  const Lock lock(m_mutex);
  for (auto next = m_waits.begin(); next != m_waits.end();) {
    Wait& wait = *(next++)->second;  // finish() erases it
    if (wait.kind == Wait::Kind::kCall) finish(wait, false);
  }
}

void VirtualTime::interrupt() {
  const Lock lock(m_mutex);
  ++m_interrupts;
  for (auto next = m_waits.begin(); next != m_waits.end();) {
    Wait& wait = *(next++)->second;
    if (wait.kind != Wait::Kind::kCall) finish(wait, false);
  }
}

void VirtualTime::end_interrupt() {
  const Lock lock(m_mutex);
  --m_interrupts;
}

bool VirtualTime::interrupted() {
  const Lock lock(m_mutex);
  return m_interrupts > 0;
}

void VirtualTime::set_loop_busy(bool busy) {
  const Lock lock(m_mutex);
  m_loop_busy = busy;
  m_changed.notify_all();
}

void VirtualTime::count_beside(int change) {
  const Lock lock(m_mutex);
  m_beside += change;
  m_changed.notify_all();
}

void VirtualTime::set_missed(const std::string& service) {
  t_missed = service;
}

void VirtualTime::service_started(const std::string& service) {
  const Lock lock(m_mutex);
  m_alive.insert(service);
}

void VirtualTime::service_died(const std::string& service) {
  const Lock lock(m_mutex);
  m_alive.erase(service);
}

void VirtualTime::add_act(TimePoint when, Task act) {
  const Lock lock(m_mutex);
  if (!m_acts_end) m_acts.emplace(TimerId(when, ++m_last_id), std::move(act));
}

void VirtualTime::end_acts() {
  std::map<TimerId, Task> dropped;  // destroyed after the lock
  const Lock lock(m_mutex);
  m_acts_end = true;
  dropped.swap(m_acts);
}

bool VirtualTime::wait_for_acts() {
  Lock lock(m_mutex);
  const bool were = m_acts_running > 0;
  m_changed.wait(lock, [this] { return m_acts_running == 0; });
  return were;
}

bool VirtualTime::in_act() {
  return t_in_act;
}

std::exception_ptr VirtualTime::take_thrown() {
  const Lock lock(m_mutex);
  return std::exchange(m_thrown, nullptr);
}

// It counts as running from here on, and its thread may take as long as it wants to begin.
void VirtualTime::begin_act(std::map<TimerId, Task>::iterator due) {
  const auto act = std::make_shared<Task>(m_acts.extract(due).mapped());
  service_apis::start_quiet_thread("orvel-act", [this, act] { run_act(std::move(*act)); }).detach();
  ++m_acts_running;
}

void VirtualTime::run_act(Task act) {
  t_in_act = true;
  std::exception_ptr thrown;
  try {
    act();
  } catch (...) {
    thrown = std::current_exception();
  }
  act = {};  // before any thread hears that it has ended
  const Lock lock(m_mutex);
  if (!m_thrown) m_thrown = thrown;
  --m_acts_running;
  m_changed.notify_all();
}

bool VirtualTime::timer_is_due() const {
  return !m_timers.empty() && m_timers.begin()->first.first <= m_now;
}

// A thread that sleeps outside the client's own is initialising the client: there is no run loop before that ends.
bool VirtualTime::quiet() const {
  return m_tasks.empty() && !m_device_busy && !timer_is_due() &&
         (!m_loop_busy || m_waiting.at(kLoop) > 0 || m_sleepers > 0) && m_beside == m_waiting.at(kBeside) &&
         m_acts_running == m_waiting.at(kAct);
}

// All that the client's threads still do is to look for services that are not there.
bool VirtualTime::only_misses() const {
  const auto misses = [this](Who who) {
    return std::count_if(m_waits.begin(), m_waits.end(), [&](const auto& entry) {
      const Wait& wait = *entry.second;
      return wait.who == who && !wait.missed.empty() && m_alive.count(wait.missed) == 0;
    });
  };
  return (!m_loop_busy || misses(kLoop) > 0) && misses(kBeside) == m_beside;
}

// Waits for a change where a thread is busy, else goes on to the next deadline; false, at once, when that is beyond the
// limit.
bool VirtualTime::pass(Lock& lock, TimePoint limit) {
  if (!quiet()) {
    m_changed.wait(lock);
    return true;
  }
  constexpr TimerId kNone(TimePoint::max(), UINT64_MAX);
  const TimerId timer = m_timers.empty() ? kNone : m_timers.begin()->first;
  const TimerId wait = m_waits.empty() ? kNone : m_waits.begin()->first;
  const TimerId act = m_acts.empty() ? kNone : m_acts.begin()->first;
  const TimerId next = std::min({timer, wait, act});
  if (next == kNone || next.first > limit) return false;
  m_now = std::max(m_now, next.first);
  if (next == wait) {
    finish(*m_waits.begin()->second, true);
  } else if (next == act) {
    begin_act(m_acts.begin());
  } else {
    m_changed.notify_all();  // the device's thread takes it from here
  }
  return true;
}

bool VirtualTime::settle(Duration limit) {
  Lock lock(m_mutex);
  const TimePoint end = m_now + limit;
  const auto is_settled = [this] {
    const auto ends = [](const auto& timer) { return !timer.second.endless; };
    return quiet() && std::none_of(m_timers.begin(), m_timers.end(), ends) && m_acts.empty() && m_acts_running == 0 &&
           only_misses();
  };
  while (!is_settled()) {
    if (!pass(lock, end)) return false;
  }
  return true;
}

void VirtualTime::advance(Duration duration) {
  Lock lock(m_mutex);
  const TimePoint end = m_now + duration;
  while (pass(lock, end)) {
  }
  m_now = std::max(m_now, end);
  m_changed.notify_all();
}

}  // namespace orvel::testing
