// Ends a callback while other threads may be inside it.
#pragma once

#include <atomic>

namespace orvel::service_apis {

// Counts the threads that are inside. Threads: any.
//
//   open --close()--> closed: no thread comes in any more; the last one leaves
//
// wait() is for a thread that has closed the gate. It waits for the others, but not for itself: a callback may end
// itself.
class RunGate {
 public:
  RunGate() = default;
  RunGate(const RunGate&) = delete;
  RunGate& operator=(const RunGate&) = delete;

  // A thread's stay inside. Made and destroyed on that thread, and nested only within each other.
  class Entry {
   public:
    explicit Entry(RunGate& gate);
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    // True when the thread is inside; false when the gate was closed.
    explicit operator bool() const { return m_inside; }

    // True when the thread is not inside the same gate around this.
    [[nodiscard]] bool is_outermost() const { return m_gate.entries_of_this_thread() == 1; }

   private:
    friend class RunGate;
    RunGate& m_gate;
    const bool m_inside;
    Entry* const m_outer;  // the thread's entry around this one, of any gate
  };

  void close() { m_state.fetch_or(kClosed); }
  [[nodiscard]] bool closed() const { return (m_state.load() & kClosed) != 0; }

  // Returns when no other thread is inside.
  void wait();

  // True when this thread is inside.
  [[nodiscard]] bool inside() const { return entries_of_this_thread() > 0; }
  // True when this thread is inside any gate.
  static bool inside_one();

 private:
  static constexpr unsigned kClosed = 1;
  static constexpr unsigned kOneEntry = 2;

  bool enter();
  void leave();
  [[nodiscard]] unsigned entries_of_this_thread() const;

  std::atomic<unsigned> m_state{0};  // the number of entries, times kOneEntry, and whether it is closed
};

}  // namespace orvel::service_apis
