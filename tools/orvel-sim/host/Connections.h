// Which processes are connected to a service.
#pragma once

#include "device/Service.h"

namespace orvel::sim {

// As Host::connections has them. Run-loop thread.
Json connectionsOf(void* runtime, const ServiceType& type);

}  // namespace orvel::sim
