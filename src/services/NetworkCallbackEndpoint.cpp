#include "services/NetworkCallbackEndpoint.h"

namespace orvel::service_apis {
namespace {

// The missing codes are those of notices that this client does not use.
enum Notice : unsigned int { kAvailable = 1, kLost = 6 };

}  // namespace

int NetworkCallbackEndpoint::call_oneway(void* /*cookie*/, unsigned int code, vesk_identity* /*identity*/,
                                         vesk_buffer* /*in*/) {
  if (code == kAvailable) m_callback(true);
  if (code == kLost) m_callback(false);
  return 0;
}

}  // namespace orvel::service_apis
