#include "parcel/OrvelActivityInfo.h"

#include "parcel/Record.h"

namespace orvel::service_apis {

bool OrvelActivityInfo::read(vesk_buffer* buffer, OrvelActivityInfo& info) {
  info = {};
  if (!marked_record_follows(buffer)) return false;
  read_members(buffer, info.packageName, info.activityName);
  return true;
}

}  // namespace orvel::service_apis
