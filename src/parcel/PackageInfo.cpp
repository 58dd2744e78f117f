#include "parcel/PackageInfo.h"

#include "parcel/Record.h"

namespace orvel::service_apis {

bool PackageInfo::read(vesk_buffer* buffer, PackageInfo& info) {
  info.applicationInfo = {};
  if (!marked_record_follows(buffer)) return false;
  read_members(buffer, info.packageName, info.versionCode, info.versionName, info.long1, info.long2,
               info.applicationInfo);
  return true;
}

}  // namespace orvel::service_apis
