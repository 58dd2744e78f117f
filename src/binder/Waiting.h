// The only place of the library that reads a clock or sleeps. Unit tests link a virtual clock in place of Waiting.cpp.
//
// The state belongs to the process and lives as long as it does, so that an exit handler may use it. Threads: any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "binder/ThreadAnnotations.h"

namespace orvel::service_apis::waiting {

using TimePoint = std::chrono::steady_clock::time_point;

TimePoint now();

// True after a sleep of `duration`; false, at once, while an Interrupt exists or as soon as one is made.
[[nodiscard]] bool sleep_for(std::chrono::nanoseconds duration);

// True while an Interrupt exists.
[[nodiscard]] bool interrupted();

// Ends every sleep, present and future, as long as it exists. Counted, not a flag: of two threads that shut the client
// down, the one that is done first must not let the sleeps go on that the other has interrupted.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();

  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;
};

// Wakes one thread. Its thread makes it, waits and destroys it; it is rung on any.
class Bell {
 public:
  Bell();
  ~Bell();
  Bell(const Bell&) = delete;
  Bell& operator=(const Bell&) = delete;

  // True when it has been rung since the last wait, at once or within `limit`; false when the limit has passed, and
  // while an Interrupt exists.
  [[nodiscard]] bool wait(std::chrono::nanoseconds limit);
  void ring();

 private:
  struct State;
  const std::unique_ptr<State> m_state;
};

// A mutex that a thread may hold while it sleeps, waits for a bell or calls a service. With std::mutex a virtual clock
// would stand still for ever: the thread that waits for the mutex looks busy, and the one that holds it waits for time.
class ORVEL_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ORVEL_ACQUIRE();
  void unlock() ORVEL_RELEASE();

 private:
  std::mutex m_mutex;
};

// A condition that such a thread brings about, for the same reason.
class Condition {
 public:
  Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  // Unlocks `mutex` until notify_all(), or by accident a moment earlier: called in a loop that asks for the condition.
  void wait(std::mutex& mutex) ORVEL_REQUIRES(mutex);
  // Behind the change that makes the condition true.
  void notify_all();

 private:
  std::condition_variable m_changed;
};

// Announces a thread beside the run loop's, from before it is made until it ends: a virtual clock stands still while
// that thread works, and it passes no time by itself.
class Background {
 public:
  Background();
  ~Background();  // NOLINT(performance-trivially-destructible): of the machine's clock it is, of others not
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;
};

}  // namespace orvel::service_apis::waiting
