// orvelctl watch: notifications as they arrive.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Session.h"

namespace orvelctl {

struct WatchOptions {
  std::vector<std::string> kinds;  // none: all that need no key
  std::uint64_t count = 0;         // ends after so many; 0: never
  double for_seconds = 0;          // ends after that time; 0: never
};

// The options of a subcommand that say when watching ends.
void addLimits(CLI::App* subcommand, WatchOptions& options);

// Returns what is wrong with the name of a kind; empty when there is such a kind.
std::string checkKind(const std::string& name);

// The kinds that need no key.
std::vector<std::string> kindNames();

// "  name           the device has a new name", one line a kind.
std::string describeKinds();

// Subscribes, then prints until the options or an interruption end it. A failure shows in the session's status.
void watchChanges(Session& session, const WatchOptions& options);

}  // namespace orvelctl
