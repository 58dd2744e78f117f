#include "services/ITarselMetric.h"

#include "binder/OrvelLogger.h"
#include "parcel/Int32.h"
#include "services/ServiceNames.h"
#include "services/Transact.h"

namespace orvel::service_apis {
namespace {

// Unused so far: the Binder logs the failure of a call, and an event that cannot be written shows in the result.
[[maybe_unused]] const OrvelLogger s_logger("ITarselMetric");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.services.ITarselMetric";

enum Transaction : unsigned int {
  kRecordTarselMetricEvent = 2,
  kGetVersion = 3,
};

}  // namespace

ITarselMetric::ITarselMetric(void* runtime, Binder::Bind bind)
    : m_binder(
          runtime, service_names::kMetrics, /*is_android_service=*/false, [] {}, LinkBoard::instance().record(kService),
          bind) {}

bool ITarselMetric::recordTarselMetricEvent(const TarselMetricEvent& event) {
  bool written = false;
  const auto write = [&](vesk_payload* request) { return written = event.write(request); };
  transact(m_binder, kDescriptor, kRecordTarselMetricEvent, write, replied);
  return written;
}

int ITarselMetric::getVersion() {
  return transact(m_binder, kDescriptor, kGetVersion, kNoArguments, Int32::read).value_or(0);
}

}  // namespace orvel::service_apis
