// Counts the allocations of the library, and lets one of them fail.
#pragma once

namespace orvel::fuzz {

// From now on this thread's allocations count, but not those inside libvesk, and the `failing`th throws.
void arm(long failing);
// Ends that. How many there have been.
long disarm();

// What this thread allocates during its life does not count.
class Unarmed {
 public:
  Unarmed();
  ~Unarmed();
  Unarmed(const Unarmed&) = delete;
  Unarmed& operator=(const Unarmed&) = delete;

 private:
  const bool m_before;
};

}  // namespace orvel::fuzz
