#include "orvel/OrvelIntent.h"

#include "parcel/Int32.h"
#include "parcel/Measured.h"
#include "parcel/Record.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"

namespace orvel::service_apis {

OrvelIntent OrvelIntent::read(vesk_buffer* buffer) {
  OrvelIntent intent;
  const bool follows = record_follows(buffer);
  const int length = Int32::read(buffer);
  if (!follows || length < 1) return intent;  // the length has no other use
  read_members(buffer, intent.action, intent.data, intent.text3, intent.package, optional(intent.component),
               optional(intent.extras));
  return intent;
}

bool OrvelIntent::write(vesk_payload* payload) const {
  int extras_length = 0;  // learnt in the first writing, so that the extras are not measured within each
  return write_measured(payload, [&](vesk_payload* into, int length) {
    Int32::write(into, 1);
    const unsigned int start = vesk_payload_get_position(into);  // Unlike a bundle's, the length counts itself.
    Int32::write(into, length);
    String::write(into, action);
    String::write_optional(into, data);
    String::write_optional(into, text3);
    String::write_optional(into, package);
    Int32::write(into, component.good() ? 1 : 0);
    if (component.good()) component.write(into);
    const bool has_extras = extras.size() >= 1;
    Int32::write(into, has_extras ? 1 : 0);
    if (has_extras) extras_length = extras.write(into, extras_length);
    StringArray::write(into, categories);
    Int32::write(into, flags);
    return written_since(into, start);
  });
}

}  // namespace orvel::service_apis
