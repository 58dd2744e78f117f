// The services that the client asks, as the command line speaks of them.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include "orvel/Service.h"

namespace orvelctl {

using orvel::service_apis::Service;

// What a call asks that asks none.
constexpr std::optional<Service> kNoService = std::nullopt;

// The name under which a service is bound, by which the library's log and the failures speak of it.
constexpr const char* boundName(Service service) {
  constexpr std::array<const char*, 8> kNames = {"orvel_delegate",
                                                 "com.quarlo.orvel.powermanager",
                                                 "com.quarlo.orvel.orvelsim.orvelsimeventclient",
                                                 "orvel-service-coordinator-public",
                                                 "com.quarlo.orvel.activitymanager",
                                                 "com.quarlo.client.metrics.tarsel",
                                                 "com.quarlo.orvel.packagemanager",
                                                 "com.quarlo.orvel.androidconnectivitymanager"};
  static_assert(kNames.size() == orvel::service_apis::kAllServices.size());
  return kNames.at(static_cast<std::size_t>(service));
}

// A name of the library's as one word, for programs: "timed-out" of "timed out".
inline std::string wordOf(std::string name) {
  for (char& c : name) {
    if (c == ' ') c = '-';
  }
  return name;
}

}  // namespace orvelctl
