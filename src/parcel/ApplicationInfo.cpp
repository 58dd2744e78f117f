#include "parcel/ApplicationInfo.h"

#include "parcel/Record.h"

namespace orvel::service_apis {

bool ApplicationInfo::read(vesk_buffer* buffer, ApplicationInfo& info) {
  if (!marked_record_follows(buffer)) return false;
  read_members(buffer, info.appString1, info.appString2, info.appString3, info.appString4, info.appString5,
               info.appString6, info.appString7, info.appString8, info.appString9);
  read_members(buffer, info.appList1, info.appList2, info.appList3);
  read_members(buffer, info.appInt1, info.appInt2, info.appInt3, info.appInt4, info.appInt5, info.appInt6);
  read_members(buffer, info.appFlag, info.appInt7, info.appInt8, info.appInt9);
  read_members(buffer, info.appString10, info.appString11, info.appString12, info.appInt10);
  read_members(buffer, optional(info.metaData));
  return true;
}

}  // namespace orvel::service_apis
