// The names of the services that the client asks, by which its log speaks of them.
#pragma once

namespace orvelctl {

constexpr char kDelegate[] = "orvel_delegate";
constexpr char kPower[] = "com.quarlo.orvel.powermanager";
constexpr char kConnectivity[] = "com.quarlo.orvel.androidconnectivitymanager";
constexpr char kActivities[] = "com.quarlo.orvel.activitymanager";
constexpr char kPackages[] = "com.quarlo.orvel.packagemanager";
constexpr char kEvents[] = "com.quarlo.orvel.orvelsim.orvelsimeventclient";
constexpr char kCoordinator[] = "orvel-service-coordinator-public";
constexpr char kMetrics[] = "com.quarlo.client.metrics.tarsel";
constexpr char kNoService[] = "";

}  // namespace orvelctl
