#include "parcel/OrvelResolveInfo.h"

#include "parcel/Record.h"

namespace orvel::service_apis {

bool OrvelResolveInfo::read(vesk_buffer* buffer, OrvelResolveInfo& info) {
  if (!marked_record_follows(buffer)) return false;
  if (!OrvelActivityInfo::read(buffer, info.activityInfo)) return false;
  read_members(buffer, info.resolveInt1, info.resolveInt2, info.resolveInt3, info.resolveInt4);
  return true;
}

}  // namespace orvel::service_apis
