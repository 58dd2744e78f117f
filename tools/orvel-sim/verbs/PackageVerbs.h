// The verbs of orvel-sim for packages and processes.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addPackageVerb(CLI::App& app);
void addProcessVerb(CLI::App& app);

}  // namespace orvel::sim
