// Which processes serve names in a runtime directory, and which namespaces of the assistant's clients hold so.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

#include "device/Wire.h"

namespace orvel::sim {

// The process that serves the name whose link that is, or served it last; 0 for no link. Asks no process.
pid_t serverOf(const std::filesystem::path& link);

// The same of a name in the runtime directory of this process.
pid_t serverOfName(const std::string& name);

// By the names that clients have published in the runtime directory: a list of {"namespace", "pid", "client"}, in the
// order of the namespaces. Asks no process.
Json heldNamespaces();

}  // namespace orvel::sim
