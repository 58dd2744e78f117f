// The verbs of orvel-sim for the values of the scenario: get, set and unset, and short forms in the words of what
// happens.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addStateVerbs(CLI::App& app);

}  // namespace orvel::sim
