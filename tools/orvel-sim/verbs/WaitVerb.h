// orvel-sim wait: until clients have made a call.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::sim {

void addWaitVerb(CLI::App& app);

}  // namespace orvel::sim
