#include "parcel/DeviceInfo.h"

#include "parcel/Record.h"

namespace orvel::service_apis {

DeviceInfo DeviceInfo::read(vesk_buffer* buffer) {
  DeviceInfo info;
  if (!record_follows(buffer)) return info;
  read_members(buffer, info.info1, info.info2, info.info3, info.deviceType, info.info5, info.info6, info.info7,
               info.info8, info.info9, info.info10);
  return info;
}

bool DeviceInfo::write(vesk_payload* /*payload*/) {
  return false;
}

}  // namespace orvel::service_apis
