// The metrics service.
#pragma once

#include "binder/Binder.h"
#include "orvel/TarselMetricEvent.h"

namespace orvel::service_apis {

// Every method is one transaction. Threads: any.
class ITarselMetric {
 public:
  // Blocks until the service is bound or given up. `runtime` is borrowed.
  explicit ITarselMetric(void* runtime);

  // Whether the event could be written; what became of the call does not count. An event that cannot is not sent. False
  // for an unbound service too.
  bool recordTarselMetricEvent(const TarselMetricEvent& event);

  // The interface version of the service; 0 on failure.
  int getVersion();

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
