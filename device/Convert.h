// Turns a recording into a scenario.
#pragma once

#include "device/Recording.h"
#include "device/Wire.h"

namespace orvel::sim {

// The scenario of a device of which everything is true that the recording shows, the latest where it changed; the rest is
// as by default. Exceptions and other failures are not taken over. Throws ScenarioError where no scenario can say it, and
// RecordingError where a reply does not fit its request.
Json scenarioOf(const Recording& recording);

}  // namespace orvel::sim
