#include "services/BroadcastReceiverEndpoint.h"

#include "services/Incoming.h"

namespace orvel::service_apis {

int BroadcastReceiverEndpoint::call_oneway(void* /*cookie*/, unsigned int /*code*/, vesk_identity* /*identity*/,
                                           vesk_buffer* in) {
  skip_header(in);
  const OrvelIntent intent = OrvelIntent::read(in);
  if (m_intent_callback) {
    m_intent_callback(intent);
  } else {
    m_callback(intent.action, intent.data, intent.extras);
  }
  return 0;
}

}  // namespace orvel::service_apis
