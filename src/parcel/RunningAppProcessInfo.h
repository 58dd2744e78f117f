// A running process of an application.
#pragma once

#include <string>
#include <vector>

#include "orvel/ComponentName.h"
#include "parcel/RecordArray.h"

namespace orvel::service_apis {

// The members stand in wire order, except the one that is not on the wire.
struct RunningAppProcessInfo {
  std::string processName;
  int processInt1 = 0;
  int processInt2 = 0;
  std::vector<std::string> processList;  // the packages that run in it
  std::vector<std::string> unreadList;   // in memory only; stays empty
  int processInt3 = 0;
  int processInt4 = 0;
  int importance = 0;  // the platform's: 100 is the foreground, larger numbers matter less
  int processInt6 = 0;
  int processInt7 = 0;
  int processInt8 = 0;
  ComponentName component;
  int processInt9 = 0;
  int processInt10 = 0;
  bool isFocused = false;
  long long processLong = 0;

  // True when a record was there; false, with nothing changed, for a null buffer and an absent record.
  static bool read(vesk_buffer* buffer, RunningAppProcessInfo& info);

  // The library never sends this record: writes nothing, returns false.
  bool write(vesk_payload* /*payload*/) const { return false; }
};

using RunningAppProcessInfoArray = RecordArray<RunningAppProcessInfo>;

}  // namespace orvel::service_apis
