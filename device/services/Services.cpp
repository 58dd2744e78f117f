#include "device/services/Services.h"

namespace orvel::sim {

const std::vector<const ServiceType*>& allServices() {
  static const std::vector<const ServiceType*> services = {
      &delegateService(), &powerManagerService(), &connectivityService(), &activityService(),
      &packageService(),  &eventService(),        &coordinatorService(),  &metricsService(),
  };
  return services;
}

}  // namespace orvel::sim
