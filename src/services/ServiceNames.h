// The names under which the library looks up the services that it calls.
#pragma once

namespace orvel::service_apis::service_names {

constexpr char kDelegate[] = "orvel_delegate";
constexpr char kPowerManager[] = "com.quarlo.orvel.powermanager";
constexpr char kEvents[] = "com.quarlo.orvel.orvelsim.orvelsimeventclient";
constexpr char kCoordinator[] = "orvel-service-coordinator-public";
constexpr char kActivityManager[] = "com.quarlo.orvel.activitymanager";
constexpr char kMetrics[] = "com.quarlo.client.metrics.tarsel";
constexpr char kPackageManager[] = "com.quarlo.orvel.packagemanager";
constexpr char kConnectivityManager[] = "com.quarlo.orvel.androidconnectivitymanager";

}  // namespace orvel::service_apis::service_names
