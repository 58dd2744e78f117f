// The device on one screen, in lines for people.
#pragma once

#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

// Of what the device answers to `status` (device/Status.h). At the end, what is to be done about what is dead or made
// to fail. The lines hold no control characters and may be long.
std::vector<std::string> statusLines(const Json& status);

}  // namespace orvel::sim
