// One registration for broadcasts, kept so that it can be made again.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "services/BroadcastReceiverEndpoint.h"

namespace orvel::service_apis {

struct OrvelIntentFilter {
  OrvelIntentFilter(std::string wanted, std::vector<std::string> types, std::vector<std::string> schemes,
                    BroadcastCallback receiver, IntentCallback intent_receiver = {})
      : action(std::move(wanted)),
        dataTypes(std::move(types)),
        dataSchemes(std::move(schemes)),
        callback(std::move(receiver)),
        intent_callback(std::move(intent_receiver)) {}

  std::string action;
  std::vector<std::string> dataTypes;
  std::vector<std::string> dataSchemes;
  BroadcastCallback callback;
  IntentCallback intent_callback;  // in place of the other one, where it is not empty
};

}  // namespace orvel::service_apis
