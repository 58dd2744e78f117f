// The verbs of orvel-sim that make calls of a device's services fail, and the one that ends all of that.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addFaultVerbs(CLI::App& app);

}  // namespace orvel::sim
