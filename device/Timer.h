// The time of the simulated device. Two implementations: the program's goes by the machine's clock and the run loop,
// the test kit's by a virtual clock. One of them is linked.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace orvel::sim {

// How long things take, and how long ago they were.
struct Clock {
  using duration = std::chrono::steady_clock::duration;
  using time_point = std::chrono::steady_clock::time_point;

  static time_point now();
};

// Runs `action` once, on the run-loop thread, unless it is destroyed before. The action may destroy its timer.
class Timer {
 public:
  // kEndless: one of a series of timers that never ends, so that a test does not wait for the last of them.
  enum class Series { kEnds, kEndless };

  Timer(void* runtime, std::chrono::milliseconds delay, std::function<void()> action, Series series = Series::kEnds);
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

 private:
  struct Stop {
    void operator()(void* running) const;
  };

  std::function<void()> m_action;
  std::unique_ptr<void, Stop> m_running;  // what the implementation keeps
};

}  // namespace orvel::sim
