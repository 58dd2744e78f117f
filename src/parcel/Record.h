// What all records on the wire have in common.
#pragma once

#include "parcel/Int32.h"

namespace orvel::service_apis {

// Reads the mark in front of a record: whether the record is there. False for a null buffer.
inline bool record_follows(vesk_buffer* buffer) {
  return Int32::read(buffer) > 0;
}

}  // namespace orvel::service_apis
