#include "Loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace vesk {
namespace {

constexpr int kTasksAtOnce = 64;

// Holds the loop's ownership for a scope.
class OwnerScope {
 public:
  OwnerScope(std::unique_lock<std::mutex> lock, std::atomic<std::thread::id>& owner)
      : m_lock(std::move(lock)), m_owner(owner) {
    m_owner.store(std::this_thread::get_id());
  }
  ~OwnerScope() { m_owner.store(std::thread::id()); }
  OwnerScope(const OwnerScope&) = delete;
  OwnerScope& operator=(const OwnerScope&) = delete;

 private:
  std::unique_lock<std::mutex> m_lock;  // unlocked after the destructor's body
  std::atomic<std::thread::id>& m_owner;
};

}  // namespace

Loop::Loop() : m_wakeup(check_errno(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
  sd_event* event = nullptr;
  check(sd_event_new(&event));
  m_event.reset(event);
  const auto on_wakeup = [](sd_event_source*, int fd, std::uint32_t, void* self) {
    eventfd_t ignored = 0;
    ::eventfd_read(fd, &ignored);
    static_cast<Loop*>(self)->run_some_tasks();
    return 0;
  };
  sd_event_source* source = nullptr;
  check(sd_event_add_io(event, &source, m_wakeup.get(), EPOLLIN, on_wakeup, this));
  m_wakeup_source.reset(source);
}

int Loop::run() {
  if (m_running.exchange(true)) return -EBUSY;
  int result = 0;
  {
    const OwnerScope owner(std::unique_lock<std::mutex>(m_owner_mutex), m_owner);
    // The count before the flag: a stop() in between is seen by one of the two.
    m_stops_at_entry = m_stops;
    if (!m_stopped) {
      run_some_tasks();
      while (result >= 0 && !is_winding_down() && sd_event_get_state(event()) != SD_EVENT_FINISHED) {
        result = sd_event_run(event(), UINT64_MAX);
      }
    }
    while (run_task(false)) {
    }
  }
  m_running = false;
  run_tasks_left_by_others();
  return std::min(result, 0);
}

void Loop::stop() {
  m_stopped = true;
  ++m_stops;
  ::eventfd_write(m_wakeup.get(), 1);
}

void Loop::enqueue(Task task) {
  {
    const std::lock_guard lock(m_tasks_mutex);
    m_tasks.push_back(std::move(task));
  }
  ::eventfd_write(m_wakeup.get(), 1);
  if (is_this_thread()) return;
  run_tasks_left_by_others();
}

// Where no thread is inside run(), the tasks are done here. A thread that finds the ownership taken leaves them to the
// owner, which looks once more after letting go.
void Loop::run_tasks_left_by_others() {
  while (!m_running && has_task(false)) {
    std::unique_lock lock(m_owner_mutex, std::try_to_lock);
    if (!lock) return;
    const OwnerScope owner(std::move(lock), m_owner);
    while (run_task(false)) {
    }
  }
}

// Those who post without end share the loop with the sockets and timers.
void Loop::run_some_tasks() {
  for (int n = 0; n < kTasksAtOnce; ++n) {
    if (!run_task(true)) return;
  }
  ::eventfd_write(m_wakeup.get(), 1);
}

bool Loop::run_task(bool callbacks_too) {
  Task task;
  if (!next_task(callbacks_too && !is_winding_down(), &task)) return false;
  const int result = as_error_code([&] {
    task.run();
    return 0;
  });
  if (result != 0) complain("the run loop could not do a task: %s", std::strerror(-result));
  return true;
}

bool Loop::next_task(bool callbacks_too, Task* out) {
  const std::lock_guard lock(m_tasks_mutex);
  const auto found =
      std::find_if(m_tasks.begin(), m_tasks.end(), [&](const Task& task) { return callbacks_too || !task.calls_out; });
  if (found == m_tasks.end()) return false;
  *out = std::move(*found);
  m_tasks.erase(found);
  return true;
}

bool Loop::has_task(bool callbacks_too) {
  const std::lock_guard lock(m_tasks_mutex);
  return std::any_of(m_tasks.begin(), m_tasks.end(),
                     [&](const Task& task) { return callbacks_too || !task.calls_out; });
}

}  // namespace vesk
