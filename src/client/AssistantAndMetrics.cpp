// The voice assistant's events and directives, and the device's metrics.
#include <memory>
#include <string>
#include <utility>

#include "client/ClientState.h"
#include "client/Listeners.h"
#include "client/PendingEvents.h"
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

bool OrvelDelegateClient::send(const AssistantEvent& event, EventOutcomeCallback callback) {
  const char* const method = __func__;
  const CallRecord record(method, IOrvelSimEventClient::kService);
  if (!callback) {
    s_client_logger.e("%s:The callback is empty", method);
    CallRecord::fail(CallStatus::Code::kInvalidArgument, "the callback is empty");
    return false;
  }
  const EventHolder holder(std::make_shared<PendingEvent>(std::move(callback)));
  const auto told = [this, holder](OrvelSimEventResult_t result) {
    m_state.events().forget(holder.event());
    holder.event().tell(outcome_of(result));
  };
  const bool accepted = m_state.ask<IOrvelSimEventClient>(method, [&](IOrvelSimEventClient& events) {
    const OrvelSimEventMetadata metadata{event.nspace, event.name,   event.event3, event.event4,
                                         event.event5, event.event6, event.event7, event.flag};
    return events.sendEvent(metadata, event.payload, told);
  });
  // An outcome that is told already says that the assistant has accepted the event, whatever became of the answer.
  if (!accepted && holder.event().close()) return false;
  m_state.events().await(holder.shared(), event.deadline);
  return true;
}

bool OrvelDelegateClient::registerForDirective(const std::string& nspace, DirectiveCallback callback) {
  const char* const method = __func__;
  return m_state.ask<IOrvelSimDirectiveClient>(method, [&](IOrvelSimDirectiveClient& directives) {
    const bool registered =
        directives.registerForDirective(nspace, DirectiveListener(SharedCallback(std::move(callback), method)));
    s_client_logger.i("%s:registerForDirective, status=%d", method, registered ? 1 : 0);
    return registered;
  });
}

void OrvelDelegateClient::recordTarselMetricEvent(const TarselMetricEvent* event) {
  if (!event) {
    s_client_logger.e("%s:event is null", __func__);
    const CallRecord record(__func__, Service::kMetrics);
    CallRecord::fail(CallStatus::Code::kInvalidArgument, "the event is null");
    return;
  }
  m_state.ask<ITarselMetric>(__func__, [&](ITarselMetric& metrics) { return metrics.recordTarselMetricEvent(*event); });
}

}  // namespace orvel::service_apis
