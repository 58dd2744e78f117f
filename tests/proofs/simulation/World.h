// One program of public calls against services, deaths, notifications and time that a seed decides.
#pragma once

#include <cstdint>
#include <string>

#include "Trace.h"

namespace orvel::test::simulation {

// Runs it, and adds all that happens to `trace`: the same for the same seed, on every machine. The client is shut down
// afterwards. Returns what is left then, as describe_end().
std::string run_world(std::uint64_t seed, Trace& trace);

}  // namespace orvel::test::simulation
