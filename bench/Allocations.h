// Counts the heap allocations of the whole process: in C, in C++ and in its libraries.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

// The calling thread's allocations so far.
std::uint64_t allocations();

// Weighs the blocks that the calling thread takes and gives back, as long as it lives. One at a time.
class Weighing {
 public:
  Weighing();
  ~Weighing();
  Weighing(const Weighing&) = delete;
  Weighing& operator=(const Weighing&) = delete;

  // The most bytes that they took at once.
  [[nodiscard]] static std::size_t peak();
};

}  // namespace bench
