// What else a recording is good for.
#pragma once

#include <filesystem>

#include "device/Recording.h"
#include "device/Wire.h"

namespace orvel::sim {

// The scenario of a device of which everything is true that the recording shows, the latest where it changed; the rest is
// as by default. Exceptions and other failures are not taken over. Throws ScenarioError where no scenario can say it, and
// RecordingError where a reply does not fit its request.
Json scenarioOf(const Recording& recording);

// Writes what the services sent as inputs of the fuzz targets that read it, into a folder for each target; gives their
// number. The same bytes are written once. Throws std::runtime_error.
std::size_t writeSeeds(const Recording& recording, const std::filesystem::path& folder);

}  // namespace orvel::sim
