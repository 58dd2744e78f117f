// A thread inside vesk_run_loop for the length of a scope.
#pragma once

#include <thread>

#include "vesk/vesk.h"

namespace orvel::test {

// Shuts the runtime down when the scope ends, and with it everything that this says in vesk.h.
class RunLoop {
 public:
  explicit RunLoop(void* runtime) : m_runtime(runtime), m_thread([runtime] { vesk_run_loop(runtime); }) {}
  ~RunLoop() {
    vesk_shutdown(m_runtime);
    m_thread.join();
  }
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  [[nodiscard]] std::thread::id thread() const { return m_thread.get_id(); }

 private:
  void* m_runtime;
  std::thread m_thread;
};

}  // namespace orvel::test
