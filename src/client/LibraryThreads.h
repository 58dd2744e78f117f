// The threads of the library beside the run loop's.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "binder/ThreadAnnotations.h"

namespace orvel::service_apis {

// Threads that end by themselves, and before a shutdown is over. Threads: any.
class LibraryThreads {
 public:
  // Runs `body` on a new thread called `name`; false, without running it, while a shutdown interrupts. What `body`
  // throws is logged. Throws std::system_error.
  bool start(const char* name, std::function<void()> body) ORVEL_EXCLUDES(m_mutex);

  // Waits for all of them. For a shutdown, as long as its Interrupt exists, under no lock that a callback takes.
  void join() ORVEL_EXCLUDES(m_mutex);

 private:
  struct Thread {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> over;
  };

  void join_those_that_are_over() ORVEL_REQUIRES(m_mutex);

  std::mutex m_mutex;
  std::list<Thread> m_threads ORVEL_GUARDED_BY(m_mutex);
};

}  // namespace orvel::service_apis
