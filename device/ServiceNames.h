// The names under which the device's services and its clients find each other. The client library has a list of its
// own: one for both would hide a mistake in it.
#pragma once

#include <cstddef>
#include <string>

namespace orvel::sim {

constexpr char kDelegateName[] = "orvel_delegate";
constexpr char kPowerManagerName[] = "com.quarlo.orvel.powermanager";
constexpr char kConnectivityName[] = "com.quarlo.orvel.androidconnectivitymanager";
constexpr char kActivityManagerName[] = "com.quarlo.orvel.activitymanager";
constexpr char kPackageManagerName[] = "com.quarlo.orvel.packagemanager";
constexpr char kEventClientName[] = "com.quarlo.orvel.orvelsim.orvelsimeventclient";
constexpr char kCoordinatorName[] = "orvel-service-coordinator-public";
constexpr char kMetricsName[] = "com.quarlo.client.metrics.tarsel";

constexpr char kHolderPrefix[] = "sim_broker_service_";
constexpr char kHolderSuffix[] = "_vesk_endpoint";

// The name of the client that holds a namespace of the assistant's.
inline std::string holderName(const std::string& nspace) {
  return kHolderPrefix + nspace + kHolderSuffix;
}

// The namespace in such a name; empty for every other name.
inline std::string namespaceIn(const std::string& name) {
  constexpr std::size_t kPrefix = sizeof(kHolderPrefix) - 1;
  constexpr std::size_t kSuffix = sizeof(kHolderSuffix) - 1;
  if (name.size() <= kPrefix + kSuffix || name.compare(0, kPrefix, kHolderPrefix) != 0) return {};
  const std::size_t end = name.size() - kSuffix;
  return name.compare(end, kSuffix, kHolderSuffix) == 0 ? name.substr(kPrefix, end - kPrefix) : std::string();
}

}  // namespace orvel::sim
