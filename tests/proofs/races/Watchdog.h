// Says which thread hangs, and where.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace orvel::races {

// Ends the process with status 1 when a step takes longer than the limit, after a line for every thread that is inside a
// step and a backtrace of each. One at a time, from before the first step until after the last.
class Watchdog {
 public:
  // `reproduce` is printed with the hang.
  Watchdog(std::chrono::seconds limit, std::string reproduce);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  // This thread is inside the step `name`, a string that lives as long as the process, for the length of the scope.
  // Scopes nest; each has the whole limit.
  class Step {
   public:
    explicit Step(const char* name);
    ~Step();
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

   private:
    const char* m_outer;
  };

 private:
  void watch();

  const std::chrono::seconds m_limit;
  const std::string m_reproduce;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_stopped = false;  // guarded by m_mutex
  std::thread m_thread;    // Last: uses the rest.
};

}  // namespace orvel::races
