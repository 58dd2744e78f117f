#include "services/IDelegateService.h"

#include <optional>
#include <utility>

#include "binder/OrvelLogger.h"
#include "parcel/String.h"
#include "services/Transact.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger s_logger("IDelegateService");

constexpr char kServiceName[] = "orvel_delegate";
constexpr char kDescriptor[] = "com.quarlo.orveldelegate.IDelegateService";

// The gaps are the remote interface's.
enum Transaction : unsigned int {
  kGetDeviceInfo = 14,
  kGetSecureSetting = 15,
  kGetPfm = 17,
  kGetCor = 18,
  kGetDirectedId = 32,
  kGetDeviceName = 33,
  kGetDsnV2 = 42,
};

// Asks for one string.
std::optional<std::string> query(Binder& binder, Transaction code) {
  return transact(binder, kDescriptor, code, no_arguments, String::read);
}

}  // namespace

IDelegateService::IDelegateService(void* context) : m_binder(context, kServiceName, /*is_android_service=*/false) {}

DeviceInfo IDelegateService::getDeviceInfo() {
  std::optional<DeviceInfo> info = transact(m_binder, kDescriptor, kGetDeviceInfo, no_arguments, DeviceInfo::read);
  if (!info) return {};
  s_logger.d("%s:Read deviceInfo: [%s] [%s] [%s] [%s]", __func__, info->info1.c_str(), info->info2.c_str(),
             info->info3.c_str(), info->deviceType.c_str());
  return *std::move(info);
}

std::string IDelegateService::getPFM() {
  std::optional<std::string> marketplace = query(m_binder, kGetPfm);
  if (!marketplace) return {};
  s_logger.i("%s:Read PFM [%s]", __func__, marketplace->c_str());
  return *std::move(marketplace);
}

std::string IDelegateService::getCOR() {
  std::optional<std::string> country = query(m_binder, kGetCor);
  if (!country) return {};
  s_logger.i("%s:Read COR [%s]", __func__, country->c_str());
  return *std::move(country);
}

std::string IDelegateService::getDirectedId() {
  std::optional<std::string> id = query(m_binder, kGetDirectedId);
  if (!id) return {};
  s_logger.i("%s:Read directedId [%s]", __func__, id->c_str());
  if (id->empty() || *id == "<unknown>") {
    s_logger.w("%s:DirectedId is [%s], returning empty string", __func__, id->c_str());
    return {};
  }
  return *std::move(id);
}

// The name and the serial number identify the owner: their values stay at debug level.

std::string IDelegateService::getDeviceName() {
  std::optional<std::string> name = query(m_binder, kGetDeviceName);
  if (!name) return {};
  s_logger.i("%s:Read device name", __func__);
  s_logger.d("%s:Device name is [%s]", __func__, name->c_str());
  return *std::move(name);
}

std::string IDelegateService::getDSNV2() {
  std::optional<std::string> serial_number = query(m_binder, kGetDsnV2);
  if (!serial_number) return {};
  s_logger.i("%s:Read DSNV2", __func__);
  s_logger.d("%s:DSN is [%s]", __func__, serial_number->c_str());
  return *std::move(serial_number);
}

std::string IDelegateService::getSecureSetting(const char* key) {
  if (!key || !*key) {
    s_logger.e("%s:Setting key is null or empty", __func__);
    return {};
  }
  s_logger.i("%s:Reading setting key [%s]", __func__, key);
  const auto write = [key](vesk_payload* request) { String::write(request, key); };
  std::optional<std::string> value = transact(m_binder, kDescriptor, kGetSecureSetting, write, String::read);
  if (!value) return {};
  s_logger.i("%s:Read setting key [%s] value [%s]", __func__, key, value->c_str());
  return *std::move(value);
}

}  // namespace orvel::service_apis
