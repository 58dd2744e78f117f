/// @file
/// The services of the device.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace orvel::service_apis {

/// The services that the client talks to.
enum class Service : std::uint8_t {
  kDelegate,      ///< identity, settings, broadcasts, intents, packages by name
  kPower,         ///< the screen and the wake locks
  kEvents,        ///< the voice assistant's events
  kCoordinator,   ///< the voice assistant's directives
  kActivity,      ///< the processes of the applications
  kMetrics,       ///< metric events
  kPackages,      ///< the names of the installed packages
  kConnectivity,  ///< the network
};

/// All of them, in the order in which initialize() binds them.
constexpr std::array<Service, 8> kAllServices = {Service::kDelegate,    Service::kPower,       Service::kEvents,
                                                 Service::kCoordinator, Service::kActivity,    Service::kMetrics,
                                                 Service::kPackages,    Service::kConnectivity};

/// The word for a service, "delegate", which is that of `orvel-sim` and of the test kit.
constexpr const char* nameOf(Service service) {
  constexpr std::array<const char*, kAllServices.size()> kNames = {"delegate", "power",   "events",   "coordinator",
                                                                   "activity", "metrics", "packages", "connectivity"};
  return kNames.at(static_cast<std::size_t>(service));
}

}  // namespace orvel::service_apis
