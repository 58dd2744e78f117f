// The state of a network attachment.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// The members stand in wire order. Only the state has a meaning to the library.
struct NetworkInfo {
  int int1 = 0;
  int int2 = 0;
  std::string name1;
  std::string name2;
  std::string state;  // "CONNECTED", another state, "<unknown>" or empty
  std::string name4;
  int int3 = 0;
  int int4 = 0;
  int int5 = 0;
  int int6 = 0;
  std::string name5;
  std::string name6;

  // The record; all empty for a null buffer and an absent record. Members behind the end of the buffer are empty or 0.
  static NetworkInfo read(vesk_buffer* buffer);

  // The library never sends this record: writes nothing, returns false.
  static bool write(vesk_payload* payload);

  // True when the state is exactly "CONNECTED".
  bool isConnected() const;
};

}  // namespace orvel::service_apis
