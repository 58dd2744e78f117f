// Turns a recording into a scenario or into fuzz seeds.
#pragma once

#include <filesystem>

#include "device/Recording.h"
#include "device/Wire.h"

namespace orvel::sim {

// The scenario of a device as the recording shows it, with the latest of values that changed; the rest is as by
// default. Exceptions and other failures are left out. Throws ScenarioError for what no scenario can say, and
// RecordingError for a reply that does not fit its request.
Json scenarioOf(const Recording& recording);

// Writes what the services sent as inputs of the fuzz targets that read it, into a folder for each target; gives their
// number. The same bytes are written once. Throws std::runtime_error.
std::size_t writeSeeds(const Recording& recording, const std::filesystem::path& folder);

}  // namespace orvel::sim
