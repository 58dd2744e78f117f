#include "services/OrvelSimDirectiveCallbackEndpoint.h"

namespace orvel::service_apis {

int OrvelSimDirectiveCallbackEndpoint::call_oneway(void* /*cookie*/, unsigned int /*code*/, vesk_identity* /*identity*/,
                                                   vesk_buffer* in) {
  m_callback(OrvelSimDirective::read(in));
  return 0;
}

}  // namespace orvel::service_apis
