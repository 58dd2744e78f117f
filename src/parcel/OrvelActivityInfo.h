// A component that an intent resolves to.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// The members stand in wire order.
struct OrvelActivityInfo {
  std::string packageName;   // that owns the component; may be empty
  std::string activityName;  // not used by the library

  // True when a record was there; false, with both strings empty, for a null buffer and an absent record.
  static bool read(vesk_buffer* buffer, OrvelActivityInfo& info);

  // The library never sends this record: writes nothing, returns false.
  bool write(vesk_payload* /*payload*/) const { return false; }
};

}  // namespace orvel::service_apis
