// What the voice assistant tells a client to do.
#pragma once

#include <string>

#include "vesk/vesk.h"

namespace orvel::service_apis {

// Seven texts, which only the assistant and the caller give a meaning.
struct OrvelSimDirective {
  std::string directive1;
  std::string directive2;
  std::string directive3;
  std::string directive4;
  std::string directive5;
  std::string directive6;
  std::string directive7;

  // No mark stands in front of the record. What the buffer ends before, all of it for a null one, is empty.
  static OrvelSimDirective read(vesk_buffer* buffer);

  // The library never sends this record: writes nothing, returns false.
  static bool write(vesk_payload* payload);
};

}  // namespace orvel::service_apis
