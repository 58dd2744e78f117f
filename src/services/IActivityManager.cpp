#include "services/IActivityManager.h"

#include "binder/OrvelLogger.h"
#include "services/ServiceNames.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IActivityManager");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.activitymanager.IActivityManager";

constexpr unsigned int kGetRunningAppProcesses = 2;

}  // namespace

IActivityManager::IActivityManager(void* runtime, Binder::Bind bind)
    : m_binder(
          runtime, service_names::kActivityManager, /*is_android_service=*/false, [] {},
          LinkBoard::instance().record(kService), bind) {}

bool IActivityManager::getRunningAppProcessesInfo(std::vector<std::unique_ptr<RunningAppProcessInfo>>& processes) {
  processes.clear();
  const auto reply = m_binder.call_if_bound(kDescriptor, kGetRunningAppProcesses, kNoArguments);
  if (!reply) return false;
  if (RunningAppProcessInfoArray::read(reply->get(), processes)) {
    s_logger.i("%s:Read %zu RunningAppProcessInfo items", __func__, processes.size());
    return true;
  }
  s_logger.e("%s:Failed to read RunningAppProcessInfoArray from reply", __func__);
  processes.clear();
  return false;
}

}  // namespace orvel::service_apis
