// The device, as the delegate service describes it.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// The members stand in wire order. Only the device type has a meaning to the library.
struct DeviceInfo {
  std::string info1;
  std::string info2;
  std::string info3;
  std::string deviceType;
  std::string info5;
  std::string info6;
  std::string info7;
  std::string info8;
  std::string info9;
  std::string info10;

  // The record; all empty for a null buffer and an absent record. Members behind the end of the buffer are empty.
  static DeviceInfo read(vesk_buffer* buffer);

  // The library never sends this record: writes nothing, returns false.
  static bool write(vesk_payload* payload);
};

}  // namespace orvel::service_apis
