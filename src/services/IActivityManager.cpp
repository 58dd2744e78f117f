#include "services/IActivityManager.h"

#include "binder/OrvelLogger.h"
#include "services/ServiceNames.h"
#include "services/Transact.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IActivityManager");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.activitymanager.IActivityManager";

constexpr unsigned int kGetRunningAppProcesses = 2;

}  // namespace

IActivityManager::IActivityManager(void* runtime)
    : m_binder(runtime, service_names::kActivityManager, /*is_android_service=*/false) {}

bool IActivityManager::getRunningAppProcessesInfo(std::vector<std::unique_ptr<RunningAppProcessInfo>>& processes) {
  processes.clear();
  const char* const method = __func__;
  const auto read = [&](vesk_buffer* reply) {
    if (RunningAppProcessInfoArray::read(reply, processes)) {
      s_logger.i("%s:Read %zu RunningAppProcessInfo items", method, processes.size());
      return true;
    }
    s_logger.e("%s:Failed to read RunningAppProcessInfoArray from reply", method);
    processes.clear();
    return false;
  };
  return transact(m_binder, kDescriptor, kGetRunningAppProcesses, no_arguments, read).value_or(false);
}

}  // namespace orvel::service_apis
