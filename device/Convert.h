// Turns a recording into a scenario.
#pragma once

#include "device/Recording.h"
#include "device/Wire.h"

namespace orvel::sim {

// The scenario of a device as the recording shows it, with the latest of values that changed; the rest is as by
// default. Exceptions and other failures are left out. Throws ScenarioError for what no scenario can say, and
// RecordingError for a reply that does not fit its request.
Json scenarioOf(const Recording& recording);

}  // namespace orvel::sim
