// orvelctl watch: notifications as they arrive, and what becomes of the services that tell them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Kinds.h"
#include "Session.h"

namespace orvelctl {

struct WatchOptions {
  std::vector<std::string> kinds;  // none: all that need no key
  DataFilter filter;
  std::uint64_t count = 0;   // ends after so many changes; 0: never
  double for_seconds = 0;    // ends after that time; 0: never
  bool established = false;  // says first that all is subscribed
};

// The options that each watching subcommand has.
void addWatchOptions(CLI::App* subcommand, WatchOptions& options);

// What their help says of the lines.
extern const char kLinesFooter[];

// Subscribes, then prints until the options or an interruption end it. A failure shows in the session's status.
void watchChanges(Session& session, const WatchOptions& options);

}  // namespace orvelctl
