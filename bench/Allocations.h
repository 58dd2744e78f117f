// Counts heap allocations, whoever makes them: C, C++ and the libraries of the process.
#pragma once

#include <cstdint>

namespace bench {

// The calling thread's allocations so far.
std::uint64_t allocations();

}  // namespace bench
