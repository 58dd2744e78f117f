// What a scenario may say, for editors.
#pragma once

#include "device/Wire.h"

namespace orvel::sim {

// A JSON Schema (draft 7, which editors know best) of scenario files, made from the tables of the services. It takes
// what the device takes, but for the size of the whole and NUL characters.
Json scenarioSchema();

}  // namespace orvel::sim
