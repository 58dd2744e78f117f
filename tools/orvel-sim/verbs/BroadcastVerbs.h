// The verbs of orvel-sim that send broadcasts without changing any state.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addBroadcastVerbs(CLI::App& app);

}  // namespace orvel::sim
