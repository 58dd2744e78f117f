// The verbs of orvel-sim that show and record the traffic and make use of recordings.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

// The view of the traffic, which records it too.
void addTrafficVerb(CLI::App& app);

// Both throw ScenarioError for what is wrong with a recording; a replay's exit status goes into `status`.
void addReplayVerb(CLI::App& app, int& status);
void addConvertVerb(CLI::App& app);

}  // namespace orvel::sim
