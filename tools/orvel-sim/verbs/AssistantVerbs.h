// The verbs of orvel-sim for the assistant's events and directives, and for metrics.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addEventResultVerb(CLI::App& app);
void addDirectiveVerb(CLI::App& app);
void addMetricsVerb(CLI::App& app);

}  // namespace orvel::sim
