// The verb of orvel-sim that shows the traffic, and records it.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addTrafficVerb(CLI::App& app);

}  // namespace orvel::sim
