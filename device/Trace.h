// A picture of recorded traffic for viewers of traces, such as https://ui.perfetto.dev.
#pragma once

#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

// The lines of a recording as JSON of the Trace Event Format: a process for each client and for the device's processes,
// in them threads for calls, notifications and services; a call is a slice with its client and one with its service,
// and an arrow from the one to the other and back. Notifications, faults, deaths and gaps are instants.
//
// A call that was never answered lasts until the end. Threads of clients are not recorded: calls of one client that
// overlap stand on several. Throws Json::exception for values of a wrong type.
std::string traceOf(const std::vector<Json>& lines);

}  // namespace orvel::sim
