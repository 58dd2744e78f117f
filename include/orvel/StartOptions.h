/// @file
/// Which services a program needs to start.
#pragma once

#include <chrono>
#include <vector>

#include "orvel/Service.h"

namespace orvel::service_apis {

/// For OrvelDelegateClient::start(). A plain value.
struct StartOptions {
  /// The services that must be up; without them the program cannot do its work.
  std::vector<Service> required;
  /// How long start() waits for them.
  std::chrono::nanoseconds deadline = std::chrono::seconds(30);
  /// With false, start() waits for none: subscribeLink() tells when they are up.
  bool wait = true;
};

}  // namespace orvel::service_apis
