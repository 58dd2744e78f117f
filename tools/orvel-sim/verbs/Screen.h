// A terminal that a program fills and fills anew. One thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace orvel::sim {

struct ScreenSize {
  std::size_t columns;
  std::size_t rows;
};

// While there is one, the terminal shows its alternate screen, and keys are read one by one without being shown.
// Afterwards it is as before, also where a signal ends the program, which then has the status 0, or suspends it.
// Standard input and output are terminals. There is one at a time.
class Screen {
 public:
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  ScreenSize size() const;

  // The text in place of all that was shown. Throws std::runtime_error when it cannot be written.
  void show(const std::string& text);

  // False when the program is to end: q, or the end of the input. A terminal that becomes another size ends the wait
  // early.
  bool wait(std::chrono::milliseconds time);
};

}  // namespace orvel::sim
