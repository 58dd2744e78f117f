// The run loop of the runtime inside a process, and how it ends.
#include <cerrno>
#include <utility>

#include "vesk/inprocess/Runtime.h"

namespace vesk::inprocess {
namespace {

thread_local bool t_on_run_loop = false;

}  // namespace

bool on_run_loop() {
  return t_on_run_loop;
}

void Runtime::queue_step(std::function<void()> step) {
  steps.push_back(std::move(step));
  ++steps_queued;
  changed.notify_all();
  tell_work();
}

void Runtime::tell_work() const {
  const bool has_work = !shut_down && (!steps.empty() || loop_thread != std::thread::id());
  if (device != nullptr) device.load()->loop_has_work(has_work);
}

void Runtime::run_step(Lock& lock) {
  std::function<void()> step = std::move(steps.front());
  steps.pop_front();
  loop_thread = std::this_thread::get_id();
  if (device != nullptr) device.load()->step_begins();
  lock.unlock();
  t_on_run_loop = true;
  step();
  step = {};  // what it holds is released without the lock, and before any thread hears that it is done
  t_on_run_loop = false;
  lock.lock();
  loop_thread = {};
  calling_back = 0;
  ++steps_done;
  changed.notify_all();
  tell_work();
}

int Runtime::run_loop() {
  Lock lock(mutex);
  if (loop_entered) return -EBUSY;
  loop_entered = true;
  const auto stopped = [this, entered_at = shutdowns] { return shut_down || shutdowns != entered_at; };
  while (!stopped()) {
    changed.wait(lock, [&] { return stopped() || may_step(); });
    if (!stopped()) run_step(lock);
  }
  loop_entered = false;
  return 0;
}

void Runtime::shut_down_now() {
  decltype(published) withdrawn;  // dropped after the lock
  Lock lock(mutex);
  require(!shut_down, "vesk_shutdown", "after a shutdown");
  shut_down = true;
  ++shutdowns;
  pending_binds.clear();
  withdrawn.swap(published);
  tell_work();
  if (device != nullptr) device.load()->shut_down();
  changed.notify_all();
  if (bind_callbacks.count(std::this_thread::get_id()) == 0) {
    changed.wait(lock, [this] { return bind_callbacks.empty(); });
  }
}

}  // namespace vesk::inprocess
