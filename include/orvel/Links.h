/// @file
/// Whether the services are there.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "orvel/Service.h"

namespace orvel::service_apis {

/// How the client stands with a service.
///
///     stopped --initialize()--> connecting --> up --death--> away --> up ...
///                                   |                         |
///                                   +------> given up <-------+      given up --rebind()--> away or connecting
///
/// shutdown() leads from each state to stopped.
enum class LinkState : std::uint8_t {
  kStopped,     ///< the client is not initialised
  kConnecting,  ///< the service is looked for, and has not been there since the client was initialised
  kUp,          ///< the service is bound, and the subscriptions are made again
  kAway,        ///< the service has died, and is looked for; calls of it fail
  kGivenUp,     ///< the service was looked for in vain; only rebind() and initialize() look again
};

/// The word for a state, "given up".
constexpr const char* nameOf(LinkState state) {
  constexpr std::array<const char*, 5> kNames = {"stopped", "connecting", "up", "away", "given up"};
  return kNames.at(static_cast<std::size_t>(state));
}

/// How the client stood with a service at one moment. A plain value.
struct Link {
  Service service = Service::kDelegate;   ///< the service
  LinkState state = LinkState::kStopped;  ///< how the client stands with it
  std::uint64_t epoch = 0;                ///< its newest connection, dead or not; the process's first has 1
  std::size_t held = 0;                   ///< the registrations that the client keeps for it; a state takes two
  std::size_t restored = 0;               ///< of these, what the service took again when the epoch began ...
  std::size_t refused = 0;                ///< ... and what it did not take; that is tried again in the next epoch
  /// Whether the subscription to the network ended with the service, for which it is not made again: only of
  /// Service::kConnectivity, and until the client registers anew.
  bool network_lost = false;
  const char* cause = "";                       ///< why it is not up, "the service has died"; empty when it is up
  std::chrono::steady_clock::time_point since;  ///< when the state began
};

/// Gets a link each time that it has changed.
using LinkCallback = std::function<void(const Link&)>;

}  // namespace orvel::service_apis
