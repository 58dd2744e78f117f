#include "parcel/OrvelSimDirective.h"

#include "parcel/Record.h"

namespace orvel::service_apis {

OrvelSimDirective OrvelSimDirective::read(vesk_buffer* buffer) {
  OrvelSimDirective directive;
  // Deliberately, the fourth is sent before the third.
  read_members(buffer, directive.directive1, directive.directive2, directive.directive4, directive.directive3,
               directive.directive5, directive.directive6, directive.directive7);
  return directive;
}

bool OrvelSimDirective::write(vesk_payload* /*payload*/) {
  return false;
}

}  // namespace orvel::service_apis
