#include "parcel/OrvelSimEventMetadata.h"

#include "parcel/Int32.h"
#include "parcel/Measured.h"
#include "parcel/String.h"

namespace orvel::service_apis {

OrvelSimEventMetadata OrvelSimEventMetadata::read(vesk_buffer* /*buffer*/) {
  return {};
}

bool OrvelSimEventMetadata::write(vesk_payload* payload) const {
  return write_patched(payload, [this, payload] {
    for (const std::string* text : {&namespaceName, &name, &event3, &event4, &event5, &event6, &event7}) {
      String::write_optional(payload, *text);
    }
    Int32::write(payload, eventFlag ? 1 : 0);
    return true;
  });
}

}  // namespace orvel::service_apis
