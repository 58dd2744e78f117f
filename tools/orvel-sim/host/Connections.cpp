#include "tools/orvel-sim/host/Connections.h"

#include "device/Traffic.h"

namespace orvel::sim {

Json connectionsOf(void* runtime, const ServiceType& type) {
  constexpr int kMicroseconds = 1000;
  Json connections = Json::array();
  const auto found = [](void* context, pid_t client, std::uint64_t openedUs) {
    static_cast<Json*>(context)->push_back(
        {{"pid", client}, {"client", programOf(client)}, {"sinceMs", openedUs / kMicroseconds}});
  };
  vesk_service_connections(runtime, type.name.c_str(), found, &connections);
  return connections;
}

}  // namespace orvel::sim
