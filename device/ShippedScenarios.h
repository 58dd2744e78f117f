// The scenarios that come with the program.
#pragma once

#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

struct ShippedScenario {
  std::string name;   // as after --scenario
  std::string about;  // what it is for, in a line
};

// All of them, by their names.
std::vector<ShippedScenario> shippedScenarios();

// One as a file would have it. Throws ScenarioError, which lists what there is.
Json shippedScenario(const std::string& name);

// The complete scenario that a word after --scenario means: a file where it has a slash or ends in ".json", else one
// that comes with the program. Throws ScenarioError.
Json scenarioCalled(const std::string& word);

}  // namespace orvel::sim
