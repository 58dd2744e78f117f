// The messages of a recording as files, for programs that read such messages.
#pragma once

#include <cstddef>
#include <filesystem>

#include "device/Recording.h"

namespace orvel::sim {

// Writes each reply and each notification as the bytes that the service sent, cut where they were cut: whole messages,
// as SERVICE.METHOD.0, SERVICE.METHOD.1 and so on, the same bytes of a method once. Returns the number of files. Throws
// std::runtime_error.
std::size_t writeSeeds(const Recording& recording, const std::filesystem::path& folder);

}  // namespace orvel::sim
