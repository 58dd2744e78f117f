// The metrics service.
#pragma once

#include "binder/Binder.h"
#include "orvel/TarselMetricEvent.h"

namespace orvel::service_apis {

// Every method is one transaction. Threads: any.
class ITarselMetric {
 public:
  static constexpr Service kService = Service::kMetrics;

  // Blocks until the service is bound or given up, unless `bind` says otherwise. `runtime` is borrowed.
  explicit ITarselMetric(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  // True when the event was written, even when the call then failed; false when it could not be written, and so was not
  // sent, and for an unbound service.
  bool recordTarselMetricEvent(const TarselMetricEvent& event);

  // The interface version of the service; 0 on failure.
  int getVersion();

  Binder& binder() { return m_binder; }

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
