// The result of resolving an intent.
#pragma once

#include "parcel/OrvelActivityInfo.h"
#include "parcel/RecordArray.h"

namespace orvel::service_apis {

// The members stand in wire order. Only the component has a meaning to the library.
struct OrvelResolveInfo {
  OrvelActivityInfo activityInfo;
  int resolveInt1 = 0;
  int resolveInt2 = 0;
  int resolveInt3 = 0;
  int resolveInt4 = 0;

  // True when a record with a component was there. False for a null buffer and an absent record, with nothing changed,
  // and for a record without a component, whose strings are then empty and whose integers stay unread.
  static bool read(vesk_buffer* buffer, OrvelResolveInfo& info);

  // The library never sends this record: writes nothing, returns false.
  bool write(vesk_payload* /*payload*/) const { return false; }
};

using OrvelResolveInfoArray = RecordArray<OrvelResolveInfo>;

}  // namespace orvel::service_apis
