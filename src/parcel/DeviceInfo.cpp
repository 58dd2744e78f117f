#include "parcel/DeviceInfo.h"

#include "parcel/Record.h"
#include "parcel/String.h"

namespace orvel::service_apis {

DeviceInfo DeviceInfo::read(vesk_buffer* buffer) {
  DeviceInfo info;
  if (!record_follows(buffer)) return info;
  info.info1 = String::read(buffer);
  info.info2 = String::read(buffer);
  info.info3 = String::read(buffer);
  info.deviceType = String::read(buffer);
  info.info5 = String::read(buffer);
  info.info6 = String::read(buffer);
  info.info7 = String::read(buffer);
  info.info8 = String::read(buffer);
  info.info9 = String::read(buffer);
  info.info10 = String::read(buffer);
  return info;
}

bool DeviceInfo::write(vesk_payload* /*payload*/) {
  return false;
}

}  // namespace orvel::service_apis
