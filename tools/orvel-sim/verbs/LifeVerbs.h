// The verbs of orvel-sim that kill services of a device and bring them back.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "tools/orvel-sim/verbs/Reading.h"

namespace orvel::sim {

void addLifeVerbs(CLI::App& app);

// The services and their processes.
Reading servicesReading();

// Of a help text: the services and their methods.
std::string describeServices();

}  // namespace orvel::sim
