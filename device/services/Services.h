// The services of the device, each described in a source of its own.
#pragma once

#include "device/Service.h"

namespace orvel::sim {

// Empty when the device is not registered, which has two spellings.
std::string accountOf(const Json& customerId);

const ServiceType& delegateService();
const ServiceType& powerManagerService();
const ServiceType& connectivityService();
const ServiceType& activityService();
const ServiceType& packageService();
const ServiceType& eventService();
const ServiceType& coordinatorService();
const ServiceType& metricsService();

}  // namespace orvel::sim
