#include "services/SettingsReceiverEndpoint.h"

#include "parcel/String.h"
#include "services/Incoming.h"

namespace orvel::service_apis {

int SettingsReceiverEndpoint::call(void* /*cookie*/, unsigned int /*code*/, vesk_identity* /*identity*/,
                                   vesk_buffer* in, vesk_payload* /*reply*/) {
  skip_header(in);
  const std::string key = String::read(in);
  const std::string value = String::read(in);
  m_callback(key, value);
  return 0;
}

}  // namespace orvel::service_apis
