// orvelctl wait: until what is said of the device is true.
#pragma once

#include <string>
#include <vector>

#include "Commands.h"

namespace orvelctl {

struct WaitOptions {
  std::vector<std::string> conditions;  // "screen=on", "power"
  std::vector<std::string> fail_on;     // the same; one that is true ends the wait
  std::string state = "up";             // of a service that is given without one
  double for_seconds = 1e6;             // eleven days
};

// `options` must outlive the parsing. The subcommand opens the session itself, because it waits for a device too.
CLI::App* addWaitCommand(Commands& commands, WaitOptions& options);

}  // namespace orvelctl
