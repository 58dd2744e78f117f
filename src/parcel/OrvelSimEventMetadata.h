// The description of an event for the voice assistant, which is sent with the event's payload.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// The members stand in wire order. Those behind the name have a meaning to the caller and the assistant only.
struct OrvelSimEventMetadata {
  std::string namespaceName;
  std::string name;
  std::string event3;
  std::string event4;
  std::string event5;
  std::string event6;
  std::string event7;
  bool eventFlag = false;

  // The library never receives this record: reads nothing, returns an empty one.
  static OrvelSimEventMetadata read(vesk_buffer* buffer);

  // True except for a null payload: a failed write shows in the payload's error alone. Empty texts are written as null
  // ones.
  bool write(vesk_payload* payload) const;
};

}  // namespace orvel::service_apis
