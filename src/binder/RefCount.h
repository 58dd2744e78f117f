// The count of references to an object that libvesk shares.
#pragma once

#include <atomic>
#include <cstdint>

namespace vesk {

// Starts at 0: the maker of the object takes the first reference. Threads: any.
class RefCount {
 public:
  void acquire() { m_count.fetch_add(1, std::memory_order_relaxed); }

  // True for the caller that dropped the last reference: it destroys the object, and sees all that other threads did to
  // it before they dropped theirs.
  [[nodiscard]] bool release() { return m_count.fetch_sub(1, std::memory_order_acq_rel) == 1; }

  std::int32_t get() const { return m_count.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::int32_t> m_count{0};
};

}  // namespace vesk
