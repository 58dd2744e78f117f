// The time of the simulated device. Two implementations: Timer.cpp goes by the machine's clock and the run loop, that of
// the test kit by a virtual clock. One of them is linked.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

struct sd_event;

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
  // `event` is the run loop's; the test kit has none.
  Timer(sd_event* event, std::chrono::milliseconds delay, std::function<void()> action);
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
