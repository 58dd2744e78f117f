// A package, as the package manager describes it.
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
  ApplicationInfo applicationInfo;  // empty for a package without one

  // True when a record was there; false for a null buffer and an absent record, with nothing changed but the
  // application, which is then empty.
  static bool read(vesk_buffer* buffer, PackageInfo& info);

  // The library never sends this record: writes nothing, returns false.
  bool write(vesk_payload* /*payload*/) const { return false; }
};

}  // namespace orvel::service_apis
