#include "services/IOrvelPackageManager.h"

#include <utility>

#include "binder/OrvelLogger.h"
#include "parcel/StringArray.h"
#include "services/ServiceNames.h"
#include "services/Transact.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IOrvelPackageManager");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.packagemanager.IOrvelPackageManager";

constexpr unsigned int kGetPackages = 2;

}  // namespace

IOrvelPackageManager::IOrvelPackageManager(void* runtime, Binder::Bind bind)
    : m_binder(
          runtime, service_names::kPackageManager, /*is_android_service=*/false, [] {},
          LinkBoard::instance().record(kService), bind) {}

bool IOrvelPackageManager::getPackages(std::vector<std::string>& packages) {
  packages.clear();
  auto names = transact(m_binder, kDescriptor, kGetPackages, kNoArguments, StringArray::read);
  if (!names) return false;
  packages = *std::move(names);
  s_logger.i("%s:Read %zu packages", __func__, packages.size());
  for (const std::string& package : packages) s_logger.d("%s:Package: %s", __func__, package.c_str());
  return true;
}

}  // namespace orvel::service_apis
