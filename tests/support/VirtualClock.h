// The library's clock, in place of the real one: a sleep takes no time, and time passes by its length.
#pragma once

#include <functional>
#include <vector>

namespace orvel::test {

// Stands for the process's implementation of binder/Waiting.h; construction starts over. Any thread may use it.
class VirtualClock {
 public:
  VirtualClock();

  // How long each sleep so far was meant to last, in seconds.
  std::vector<long long> sleeps() const;

  // Runs `step` at the end of the `nth` sleep from now, on the thread that sleeps.
  void at_sleep(int nth, std::function<void()> step);
};

}  // namespace orvel::test
