// An instruction of the voice assistant to a client.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// Seven texts, which have a meaning to the assistant and the caller only.
struct OrvelSimDirective {
  std::string directive1;
  std::string directive2;
  std::string directive3;
  std::string directive4;
  std::string directive5;
  std::string directive6;
  std::string directive7;

  // The record, which has no mark in front of it. Members behind the end of the buffer are empty, all for a null
  // buffer.
  static OrvelSimDirective read(vesk_buffer* buffer);

  // The library never sends this record: writes nothing, returns false.
  static bool write(vesk_payload* payload);
};

}  // namespace orvel::service_apis
