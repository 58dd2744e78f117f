// An application, as the package manager describes it.
#pragma once

#include <string>
#include <vector>

#include "parcel/OrvelBundle.h"

namespace orvel::service_apis {

// The members stand in wire order. Only the metadata have a meaning to the library.
struct ApplicationInfo {
  std::string appString1;
  std::string appString2;
  std::string appString3;
  std::string appString4;
  std::string appString5;
  std::string appString6;
  std::string appString7;
  std::string appString8;
  std::string appString9;
  std::vector<std::string> appList1;
  std::vector<std::string> appList2;
  std::vector<std::string> appList3;
  int appInt1 = 0;
  int appInt2 = 0;
  int appInt3 = 0;
  int appInt4 = 0;
  int appInt5 = 0;
  int appInt6 = 0;
  bool appFlag = false;
  int appInt7 = 0;
  int appInt8 = 0;
  int appInt9 = 0;
  std::string appString10;
  std::string appString11;
  std::string appString12;
  int appInt10 = 0;
  OrvelBundle metaData;

  // True when a record was there; false, with nothing changed, for a null buffer and an absent record.
  static bool read(vesk_buffer* buffer, ApplicationInfo& info);

  // The library never sends this record: writes nothing, returns false.
  bool write(vesk_payload* /*payload*/) const { return false; }
};

}  // namespace orvel::service_apis
