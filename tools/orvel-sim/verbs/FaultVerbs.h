// The verbs of orvel-sim that break the services of a device, and mend them.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/orvel-sim/verbs/Reading.h"

namespace orvel::sim {

void addFaultVerbs(CLI::App& app);

// The services and their processes.
Reading servicesReading();

}  // namespace orvel::sim
