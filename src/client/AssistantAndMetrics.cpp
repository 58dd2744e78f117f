// The voice assistant's events and directives, and the device's metrics.
#include <string>
#include <utility>

#include "client/ClientState.h"
#include "client/Listeners.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::service_apis {

bool OrvelDelegateClient::sendEvent(const std::string& nspace, const std::string& name, const std::string& event3,
                                    const std::string& event4, const std::string& event5, const std::string& event6,
                                    const std::string& event7, bool flag,
                                    std::string payload,  // NOLINT(performance-unnecessary-value-param)
                                    EventResultCallback callback) {
  const char* const method = __func__;
  return m_state.ask<IOrvelSimEventClient>(method, [&](IOrvelSimEventClient& events) {
    const OrvelSimEventMetadata metadata{nspace, name, event3, event4, event5, event6, event7, flag};
    const bool sent = events.sendEvent(metadata, payload, EventResultListener(std::move(callback)));
    s_client_logger.i("%s:sendEvent, status=%s", method, sent ? "true" : "false");
    return sent;
  });
}

bool OrvelDelegateClient::registerForDirective(const std::string& nspace, DirectiveCallback callback) {
  const char* const method = __func__;
  return m_state.ask<IOrvelSimDirectiveClient>(method, [&](IOrvelSimDirectiveClient& directives) {
    const bool registered = directives.registerForDirective(nspace, DirectiveListener(std::move(callback)));
    s_client_logger.i("%s:registerForDirective, status=%d", method, registered ? 1 : 0);
    return registered;
  });
}

void OrvelDelegateClient::recordTarselMetricEvent(const TarselMetricEvent* event) {
  if (!event) {
    s_client_logger.e("%s:event is null", __func__);
    return;
  }
  m_state.ask<ITarselMetric>(__func__, [&](ITarselMetric& metrics) { return metrics.recordTarselMetricEvent(*event); });
}

}  // namespace orvel::service_apis
