// The count of references to an object that libvesk shares.
#pragma once

#include <atomic>
#include <cstdint>

namespace vesk {

// Starts at 0: whoever makes the object takes the first reference. Threads: any.
class RefCount {
 public:
  void acquire() { m_count.fetch_add(1, std::memory_order_relaxed); }

  // True for the one caller that dropped the last reference, who then destroys the object and sees all that the others
  // did to it.
  [[nodiscard]] bool release() { return m_count.fetch_sub(1, std::memory_order_acq_rel) == 1; }

  std::int32_t get() const { return m_count.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::int32_t> m_count{0};
};

}  // namespace vesk
