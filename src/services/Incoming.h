// What the messages of all services to endpoints begin with.
#pragma once

#include "parcel/Int32.h"
#include "parcel/String.h"

namespace orvel::service_apis {

// Moves past the three header words and the interface descriptor. They are not compared: who may call an endpoint was
// settled when it was sent.
inline void skip_header(vesk_buffer* message) {
  for (int word = 0; word < 3; ++word) Int32::read(message);
  String::read(message);
}

}  // namespace orvel::service_apis
