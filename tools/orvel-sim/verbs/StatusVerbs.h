// The verbs of orvel-sim that show a device on one screen, and which devices there are.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addStatusVerbs(CLI::App& app);

}  // namespace orvel::sim
