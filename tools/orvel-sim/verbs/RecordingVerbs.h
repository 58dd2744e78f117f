// The verbs of orvel-sim that make use of recordings.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

// Both throw ScenarioError for what is wrong with a recording; a replay's exit status goes into `status`.
void addReplayVerb(CLI::App& app, int& status);
void addConvertVerb(CLI::App& app);

}  // namespace orvel::sim
