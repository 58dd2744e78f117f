// A picture of recorded traffic for reports of faults.
#pragma once

#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

// The lines of a recording as a sequence diagram of Mermaid's, which many viewers of Markdown draw: clients on the
// left, services on the right. Long values are cut. Throws Json::exception for values of a wrong type.
std::string mermaidOf(const std::vector<Json>& lines);

}  // namespace orvel::sim
