// The names of the services.
#pragma once

#include <array>

namespace orvel::test {

// What initialize() binds, in its order.
constexpr std::array<const char*, 8> kServices = {"orvel_delegate",
                                                  "com.quarlo.orvel.powermanager",
                                                  "com.quarlo.orvel.orvelsim.orvelsimeventclient",
                                                  "orvel-service-coordinator-public",
                                                  "com.quarlo.orvel.activitymanager",
                                                  "com.quarlo.client.metrics.tarsel",
                                                  "com.quarlo.orvel.packagemanager",
                                                  "com.quarlo.orvel.androidconnectivitymanager"};

}  // namespace orvel::test
