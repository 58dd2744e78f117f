// What a client tells the voice assistant of an event, next to its payload.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// The members stand in wire order. Beyond the namespace and the name, only the caller and the assistant give them a
// meaning.
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

  // Empty texts go as null ones. False only for a null payload: a failed write shows in the payload's error alone.
  bool write(vesk_payload* payload) const;
};

}  // namespace orvel::service_apis
