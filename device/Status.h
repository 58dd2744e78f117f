// The device on one screen, as JSON: for people and programs that ask what there is and what is wrong.
//
//   "services"  [{"service", "name", "pid", "sinceMs", "epoch", "flap", "without"}]; a dead one has the process 0, and
//               one that the device runs without the process of another, if any
//   "clients"   [{"pid", "client", "sinceMs", "services", "registrations", "namespaces"}]
//   "faults"    [{"service", "method", "fault", "value", "only", "struck"}]
//   "device"    {"name", "account", "screenOn", "networkConnected", "assistantConnected", "packages", "processes",
//                "foreground"}
#pragma once

#include <memory>
#include <vector>

#include "device/Runner.h"

namespace orvel::sim {

// All but the clients.
Json statusOf(const Json& scenario, const std::vector<std::unique_ptr<Runner>>& runners, const Json& faults);

// Puts together by process what the services say of their clients: a list of {"service", "clients"}.
void addClients(Json& status, const Json& told);

// Adds the namespaces of the assistant's that a client holds: a list of {"namespace", "pid", "client"}.
void addNamespaces(Json& status, const Json& held);

}  // namespace orvel::sim
