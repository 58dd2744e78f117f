// The run loop: sd-event on whichever thread is inside vesk_run_loop, and the work that other threads leave for it.
#pragma once

#include <systemd/sd-event.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "Support.h"
#include "ThreadAnnotations.h"

namespace vesk {

struct SourceDelete {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using SourcePtr = std::unique_ptr<sd_event_source, SourceDelete>;

// One thread at a time owns the event loop and everything on it: the one inside run(), or, while there is none, a
// thread that hands in a task, for as long as that task takes. So what is left for the loop is done promptly whether it
// runs or not.
class Loop {
 public:
  Loop();

  // Serves until stop(). Returns at once when stopped before, -EBUSY when another thread is inside.
  int run();

  // Makes run() return after the callback in progress, and later ones at once, until allow().
  void stop();
  void allow() { m_stopped = false; }
  [[nodiscard]] bool is_stopped() const { return m_stopped; }

  // Whether the run() in progress has been told to stop: no further callback may start. Owning thread.
  [[nodiscard]] bool is_winding_down() const { return m_stops != m_stops_at_entry; }

  [[nodiscard]] bool is_this_thread() const { return m_owner == std::this_thread::get_id(); }
  [[nodiscard]] sd_event* event() const { return m_event.get(); }

  // Runs `task` on the owning thread, in the order posted. It must not call out of this library. The caller holds no
  // lock.
  void post(std::function<void()> task) { enqueue({std::move(task), false}); }

  // The same for what calls out: it waits for a thread inside run().
  void post_callback(std::function<void()> task) { enqueue({std::move(task), true}); }

 private:
  struct Task {
    std::function<void()> run;
    bool calls_out = false;
  };
  struct EventDelete {
    void operator()(sd_event* event) const { sd_event_unref(event); }
  };

  void enqueue(Task task);
  void run_some_tasks();
  bool run_task(bool callbacks_too);
  void run_tasks_left_by_others();
  bool next_task(bool callbacks_too, Task* out);
  bool has_task(bool callbacks_too);

  std::unique_ptr<sd_event, EventDelete> m_event;
  UniqueFd m_wakeup;
  SourcePtr m_wakeup_source;

  std::mutex m_owner_mutex;                // held by the owning thread; taken before any other lock
  std::atomic<std::thread::id> m_owner{};  // who that is
  std::atomic<bool> m_running{false};      // a thread is inside run()
  std::atomic<bool> m_stopped{false};      // between stop() and allow()
  std::atomic<std::uint64_t> m_stops{0};   // counted, so that an allow() right after a stop() does not hide it
  std::uint64_t m_stops_at_entry = 0;      // owning thread

  std::mutex m_tasks_mutex;
  std::deque<Task> m_tasks VESK_GUARDED_BY(m_tasks_mutex);
};

}  // namespace vesk
