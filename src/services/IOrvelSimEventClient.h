// The event service, through which the voice assistant gets events.
#pragma once

#include <string>

#include "binder/Binder.h"
#include "parcel/OrvelSimEventMetadata.h"
#include "services/OrvelSimEventStatusCallbackEndpoint.h"

namespace orvel::service_apis {

// Keeps nothing of an event: each has an endpoint of its own for its result, which lives for as long as the service
// holds it. The result is lost when the service dies first. Threads: any, one at a time.
class IOrvelSimEventClient {
 public:
  static constexpr Service kService = Service::kEvents;

  // Blocks until the service is bound or given up, unless `bind` says otherwise. `runtime` is borrowed.
  explicit IOrvelSimEventClient(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  // True when the service has accepted the event; only then, `callback` gets its result, on the run-loop thread and
  // possibly before this returns. An empty payload goes as a null one.
  bool sendEvent(const OrvelSimEventMetadata& metadata, const std::string& payload, EventStatusCallback callback);

  Binder& binder() { return m_binder; }

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
