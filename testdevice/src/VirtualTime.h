// The time of the process under test, which no clock drives, and the thread of the device, whose work takes none.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orvel::testing {

// One for the process; it outlives everything. Any thread may use it.
//
// Time passes only while a thread waits for it: inside settle() and advance(), and inside a wait that passes time
// itself. It then goes from one deadline to the next, and to each only when the device's thread, the client's threads
// and the acts of the test have nothing left to do. So what happens, and in which order, does not depend on how the
// threads are scheduled.
//
// The client's run loop, when it sleeps, waits for another thread to let time pass: a test that kills a service and
// starts it again must not find that the client has given up meanwhile. So do the client's threads beside the run loop.
class VirtualTime {
 public:
  using Duration = std::chrono::nanoseconds;
  using TimePoint = std::chrono::steady_clock::time_point;
  using Task = std::function<void()>;
  using TimerId = std::pair<TimePoint, std::uint64_t>;

  // The threads that a wait may be of: the test's, the client's run loop, the client's others, those of acts.
  enum Who { kTest, kLoop, kBeside, kAct };

  // A wait that has a limit. It lives until wait() has returned.
  struct Wait {
    enum class Kind { kCall, kSleep, kBell } kind;
    bool over = false;
    bool expired = false;
    Who who = kTest;
    std::string missed =
        {};  // the service that its thread looks for: as long as that is dead, time does not end it well
    TimerId id{};
  };

  // A wait for another of the client's threads: it has no limit, and time goes on meanwhile. It lives until it is over.
  struct Blocked {
    const void* on = nullptr;
    Who who = kTest;
  };

  static VirtualTime& instance();

  [[nodiscard]] TimePoint now();

  // ---- The device's thread ----

  // Runs tasks and the timers that are due, on the calling thread, until stop_device().
  void run_device();
  void stop_device();
  void post(Task task);

  // Runs `task` on the device's thread once the delay has passed. settle() does not wait for a timer that is endless,
  // one of a series without an end.
  TimerId start_timer(Duration delay, Task task, bool endless = false);
  // On the device's thread: after this the task is not started any more.
  void stop_timer(const TimerId& timer);

  // ---- Waits ----

  // Waits for end(); false when the limit passed before. What the client's own threads wait for, but in calls, does not
  // let time pass itself; everything else does.
  bool wait(Wait& wait, Duration limit);
  void end(Wait& wait);
  // Ends the calls that wait: their connections are going.
  void end_calls();

  void begin(Blocked& blocked);
  void end(Blocked& blocked);
  // Ends all that are blocked on that, before one of their threads runs: none of them is taken for idle meanwhile.
  void release(const void* on);
  // Locks the mutex, which release() follows the unlocking of.
  void lock(std::mutex& mutex);

  // No thread sleeps, and none falls asleep, as long as there are interrupts.
  void interrupt();
  void end_interrupt();
  [[nodiscard]] bool interrupted();

  // ---- What the client does ----

  void set_loop_busy(bool busy);
  // A thread beside the run loop begins or ends.
  void count_beside(int change);
  // What this thread has looked for in vain; empty: nothing.
  static void set_missed(const std::string& service);
  void service_started(const std::string& service);
  void service_died(const std::string& service);

  // ---- Acts of the test ----

  // Runs `act` on a thread of its own when time has come to `when`, or goes on from beyond it. Dropped after
  // end_acts().
  void add_act(TimePoint when, Task act);
  // No further act begins. On the device's end, in front of wait_for_acts(), which is true when one was running.
  void end_acts();
  bool wait_for_acts();
  static bool in_act();
  // What the first act threw that was not taken yet; null for none.
  std::exception_ptr take_thrown();

  // ---- The test ----

  // Waits until nothing is under way any more; time passes as far as that needs, but no further than `limit` from now.
  // False when there is no end to it.
  bool settle(Duration limit);
  void advance(Duration duration);

 private:
  using Lock = std::unique_lock<std::mutex>;

  struct Timer {
    Task task;
    bool endless;
  };

  static Who this_thread();
  bool quiet() const;
  bool only_misses() const;
  bool timer_is_due() const;
  bool pass(Lock& lock, TimePoint limit);
  void finish(Wait& wait, bool expired);
  void begin_act(std::map<TimerId, Task>::iterator due);
  void run_act(Task act);
  void add(Blocked& blocked);
  bool remove(const Blocked& blocked);

  std::mutex m_mutex;  // guards everything below; never held while a task runs
  std::condition_variable m_changed;
  TimePoint m_now{};
  std::uint64_t m_last_id = 0;

  std::deque<Task> m_tasks;
  std::map<TimerId, Timer> m_timers;
  bool m_device_busy = false;
  bool m_device_stops = false;

  std::map<TimerId, Task> m_acts;  // that have not begun
  int m_acts_running = 0;
  bool m_acts_end = false;
  std::exception_ptr m_thrown;

  std::map<TimerId, Wait*> m_waits;
  std::vector<Blocked*> m_blocked;
  std::array<int, 4> m_waiting{};  // how many of the threads are in a wait of either kind, by Who
  int m_interrupts = 0;
  int m_sleepers = 0;  // outside the client's own threads

  bool m_loop_busy = false;  // it has something to do
  int m_beside = 0;          // how many threads the client has beside the run loop
  std::set<std::string> m_alive;
};

}  // namespace orvel::testing
