// Every way in which a process may end under a running client.
#pragma once

#include <array>
#include <cstdint>

namespace orvel::races {

// Their names.
extern const std::array<const char*, 8> kExits;

// Starts a client and ends this process in the way of that number, with kExitStatus. Does not return.
constexpr int kExitStatus = 3;
[[noreturn]] void end_process(std::size_t exit, std::uint64_t seed);

}  // namespace orvel::races
