#include "parcel/RunningAppProcessInfo.h"

#include "parcel/Record.h"

namespace orvel::service_apis {

bool RunningAppProcessInfo::read(vesk_buffer* buffer, RunningAppProcessInfo& info) {
  if (!record_follows(buffer)) return false;
  read_members(buffer, info.processName, info.processInt1, info.processInt2, info.processList, info.processInt3,
               info.processInt4, info.importance, info.processInt6, info.processInt7, info.processInt8, info.component,
               info.processInt9, info.processInt10, info.isFocused, info.processLong);
  return true;
}

}  // namespace orvel::service_apis
