// What the package manager knows of a package.
#pragma once

#include <string>

#include "parcel/ApplicationInfo.h"

namespace orvel::service_apis {

// The members stand in wire order.
struct PackageInfo {
  std::string packageName;
  int versionCode = 0;
  std::string versionName;
  long long long1 = 0;
  long long long2 = 0;
  ApplicationInfo applicationInfo;  // empty where the package has none

  // False for a null buffer and an absent record, with nothing changed but the application, which is empty then.
  static bool read(vesk_buffer* buffer, PackageInfo& info);

  // The library never sends this record: writes nothing, returns false.
  bool write(vesk_payload* /*payload*/) const { return false; }
};

}  // namespace orvel::service_apis
