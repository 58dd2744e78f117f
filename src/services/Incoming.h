// The head of the messages that services send to endpoints.
#pragma once

#include "parcel/Int32.h"
#include "parcel/String.h"

namespace orvel::service_apis {

// Moves past the three header words and the interface descriptor. They are not compared: only a service that was sent
// the endpoint can call it.
inline void skip_header(vesk_buffer* message) {
  for (int word = 0; word < 3; ++word) Int32::read(message);
  String::skip(message);
}

}  // namespace orvel::service_apis
