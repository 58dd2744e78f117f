// Every way in which a process may end under a running client.
#pragma once

#include <cstdint>

namespace orvel::races {

constexpr int kExitCases = 8;

// Starts a client and ends this process in the way of that number. Does not return.
[[noreturn]] void end_process(int exit_case, std::uint64_t seed);

// Ends a child process in that way; true when it ended as it should, else a line says how it did.
bool child_ends_well(int exit_case, std::uint64_t seed);

}  // namespace orvel::races
