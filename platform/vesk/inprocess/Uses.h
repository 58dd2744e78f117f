// How often the client used libvesk, and which uses fail.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::inprocess {

// Any thread; no lock is held while a step runs.
class Uses {
 public:
  using Step = std::function<void(std::string_view operation)>;

  // Counts a use of `operation`. The error that it must fail with, else 0.
  int enter(const char* operation);

  // As the methods of InprocessVesk with these names.
  void fail(std::string_view operation, int nth, bool always, int error);
  void at_use(int nth, Step step);
  void repair();
  [[nodiscard]] int of(std::string_view operation);
  [[nodiscard]] int all();

  // Nothing counted, nothing planned.
  void reset();

 private:
  struct Failure {
    std::string operation;
    int first, last;  // uses, counted from the last reset()
    int error;
  };

  std::mutex m_mutex;  // guards everything below
  std::map<std::string, int, std::less<>> m_counts;
  int m_all = 0;
  int m_step_at = 0;
  Step m_step;
  std::vector<Failure> m_failures;
};

}  // namespace vesk::inprocess
