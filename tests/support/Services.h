// The client's services: their names, and the interfaces that requests to them begin with.
#pragma once

#include <array>

namespace orvel::test {

// Places in the lists below.
enum Service {
  kDelegate,
  kPower,
  kEvents,
  kDirectives,
  kActivities,
  kMetrics,
  kPackages,
  kConnectivity,
  kServiceCount
};

// What initialize() binds, in its order.
constexpr std::array<const char*, kServiceCount> kServices = {"orvel_delegate",
                                                              "com.quarlo.orvel.powermanager",
                                                              "com.quarlo.orvel.orvelsim.orvelsimeventclient",
                                                              "orvel-service-coordinator-public",
                                                              "com.quarlo.orvel.activitymanager",
                                                              "com.quarlo.client.metrics.tarsel",
                                                              "com.quarlo.orvel.packagemanager",
                                                              "com.quarlo.orvel.androidconnectivitymanager"};

// Empty for the one that is only bound, and never called.
constexpr std::array<const char*, kServiceCount> kInterfaces = {
    "com.quarlo.orveldelegate.IDelegateService",
    "com.quarlo.orveldelegate.powermanager.IPowerManagerService",
    "com.quarlo.orveldelegate.orvelsim.IOrvelSimEventClient",
    "",
    "com.quarlo.orveldelegate.activitymanager.IActivityManager",
    "com.quarlo.orveldelegate.services.ITarselMetric",
    "com.quarlo.orveldelegate.packagemanager.IOrvelPackageManager",
    "com.quarlo.orveldelegate.androidconnectivitymanager.IAndroidConnectivityManager"};

}  // namespace orvel::test
