// Counts the allocations of the library, and lets one of them fail.
#pragma once

namespace orvel::test {

// From now on this thread's allocations outside libvesk count; that of the number `failing`, if any, throws.
void count_allocations(long failing);
// Ends that. Returns how many there have been.
long counted_allocations();

// What this thread allocates during its life does not count.
class Uncounted {
 public:
  Uncounted();
  ~Uncounted();
  Uncounted(const Uncounted&) = delete;
  Uncounted& operator=(const Uncounted&) = delete;

 private:
  const bool m_before;
};

}  // namespace orvel::test
