#include "services/IOrvelSimEventClient.h"

#include <utility>

#include "binder/OrvelLogger.h"
#include "parcel/Int32.h"
#include "parcel/String.h"
#include "services/ServiceNames.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IOrvelSimEventClient");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.orvelsim.IOrvelSimEventClient";
constexpr unsigned int kSendEvent = 2;

// Deliberately only this number: in the replies of other services every number but 0 means yes.
constexpr int kAccepted = 1;

}  // namespace

IOrvelSimEventClient::IOrvelSimEventClient(void* runtime, Binder::Bind bind)
    : m_binder(
          runtime, service_names::kEvents, /*is_android_service=*/false, [] {}, LinkBoard::instance().record(kService),
          bind) {}

bool IOrvelSimEventClient::sendEvent(const OrvelSimEventMetadata& metadata, const std::string& payload,
                                     EventStatusCallback callback) {
  if (!m_binder.good()) {
    s_logger.e("%s:m_binder.good() = false", __func__);
    return false;
  }
  s_logger.i("%s:namespace=%s, name=%s", __func__, metadata.namespaceName.c_str(), metadata.name.c_str());
  const auto endpoint = vesk::make_endpoint<OrvelSimEventStatusCallbackEndpoint>(std::move(callback));
  const auto write = [&](vesk_payload* request) {
    metadata.write(request);
    String::write_optional(request, payload);
    vesk_write_endpoint(request, endpoint->get_endpoint());
  };
  return Int32::read(m_binder.call(kDescriptor, kSendEvent, write).get()) == kAccepted;
}

}  // namespace orvel::service_apis
