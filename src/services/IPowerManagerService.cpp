#include "services/IPowerManagerService.h"

#include <optional>

#include "binder/CallRecord.h"
#include "binder/OrvelLogger.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "services/ServiceNames.h"
#include "services/Transact.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IPowerManagerService");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.powermanager.IPowerManagerService";

enum Transaction : unsigned int {
  kIsInteractive = 1,
  kWakeUpDevice = 2,
  kGetVersion = 3,
  kWakeUpDeviceCustom = 4,
};

constexpr int kFirstVersionWithCustomWakeUp = 2;
constexpr int kPartialWakeUp = 1;
constexpr long long kPartialWakeUpMs = 500;

// The result; `failure`, with an error line, when the service is not bound.
template <typename Result>
Result value_or_unbound(const std::optional<Result>& result, Result failure, const char* method) {
  if (!result) s_logger.e("%s:Invalid binder handle", method);
  return result.value_or(failure);
}

}  // namespace

IPowerManagerService::IPowerManagerService(void* runtime, Binder::Bind bind)
    : m_binder(
          runtime, service_names::kPowerManager, /*is_android_service=*/false, [] {},
          LinkBoard::instance().record(kService), bind) {}

bool IPowerManagerService::isInteractive() {
  return value_or_unbound(transact(m_binder, kDescriptor, kIsInteractive, kNoArguments, Int32::read), 0, __func__) != 0;
}

bool IPowerManagerService::wakeUpDevice() {
  s_logger.d("%s:", __func__);
  return value_or_unbound(transact(m_binder, kDescriptor, kWakeUpDevice, kNoArguments, replied), false, __func__);
}

int IPowerManagerService::getVersion() {
  s_logger.d("%s:", __func__);
  return value_or_unbound(transact(m_binder, kDescriptor, kGetVersion, kNoArguments, Int32::read), 0, __func__);
}

bool IPowerManagerService::wakeUpDeviceCustom(int kind, long long duration_ms) {
  s_logger.d("%s:", __func__);
  const auto write = [&](vesk_payload* request) {
    Int32::write(request, kind);
    Int64::write(request, duration_ms);
  };
  return value_or_unbound(transact(m_binder, kDescriptor, kWakeUpDeviceCustom, write, replied), false, __func__);
}

bool IPowerManagerService::acquirePartialWakeLock() {
  if (const int version = getVersion(); version < kFirstVersionWithCustomWakeUp) {
    s_logger.e("%s:wakeUpDeviceCustom() is not available in interface version %d", __func__, version);
    CallRecord::fail(CallStatus::Code::kFailed, "the power manager is too old to keep the processor awake");
    return false;
  }
  return wakeUpDeviceCustom(kPartialWakeUp, kPartialWakeUpMs);
}

bool IPowerManagerService::acquireFullWakeLock() {
  return wakeUpDevice();
}

}  // namespace orvel::service_apis
