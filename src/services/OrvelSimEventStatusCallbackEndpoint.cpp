#include "services/OrvelSimEventStatusCallbackEndpoint.h"

#include "services/Incoming.h"

namespace orvel::service_apis {

int OrvelSimEventStatusCallbackEndpoint::call_oneway(void* /*cookie*/, unsigned int /*code*/,
                                                     vesk_identity* /*identity*/, vesk_buffer* in) {
  skip_header(in);
  m_callback(OrvelSimEventResult::read(in));
  return 0;
}

}  // namespace orvel::service_apis
