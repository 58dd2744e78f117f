#include "services/IDelegateService.h"

#include <optional>
#include <utility>

#include "binder/OrvelLogger.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"
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
  kRegisterForBroadcast = 28,
  kGetDirectedId = 32,
  kGetDeviceName = 33,
  kRegisterForSecureSettings = 34,
  kGetDsnV2 = 42,
};

// Asks for one string.
std::optional<std::string> query(Binder& binder, Transaction code) {
  return transact(binder, kDescriptor, code, no_arguments, String::read);
}

bool is_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

// Sends a registration: its arguments, then a new endpoint that holds the callback. The service keeps the endpoint for
// as long as it may call it. Empty when the service is not bound, else the connection that has taken the registration.
template <typename Endpoint, typename Callback>
std::optional<Connection> publish(Binder& binder, Transaction code, const RequestWriter& write_arguments,
                                  Callback callback, Connection only) {
  const auto endpoint = vesk::make_endpoint<Endpoint>(std::move(callback));
  Connection carrier = kNoConnection;
  const auto write = [&](vesk_payload* request) {
    carrier = binder.connection();
    write_arguments(request);
    vesk_write_endpoint(request, endpoint->get_endpoint());
  };
  const auto read = [&](vesk_buffer* reply) { return reply ? carrier : kNoConnection; };
  return transact(binder, kDescriptor, code, write, read, only);
}

}  // namespace

IDelegateService::IDelegateService(void* context)
    : m_binder(context, kServiceName, /*is_android_service=*/false, [this] { onBinderReconnectedCallback(); }) {}

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
  if (is_empty(key)) {
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

bool IDelegateService::registerForSecureSettings(const char* key, SettingCallback callback) {
  if (is_empty(key)) {
    s_logger.e("%s:Setting key is null or empty", __func__);
    return false;
  }
  const Connection carrier = registerForSecureSettingsInternal(key, callback);
  if (carrier == kNoConnection) return false;
  m_settings.add({key, std::move(callback)}, carrier, m_binder,
                 [this](const auto& setting, Connection newest) { renew(setting, newest); });
  return true;
}

Connection IDelegateService::registerForSecureSettingsInternal(const char* key, SettingCallback callback,
                                                               Connection only) {
  if (is_empty(key)) {
    s_logger.e("%s:Setting key is null or empty", __func__);
    return kNoConnection;
  }
  const auto write = [key](vesk_payload* request) { String::write(request, key); };
  const auto carrier =
      publish<SettingsReceiverEndpoint>(m_binder, kRegisterForSecureSettings, write, std::move(callback), only);
  if (!carrier) return kNoConnection;
  s_logger.i("%s:Registered for updates to setting key [%s] (result=%d)", __func__, key,
             *carrier != kNoConnection ? 1 : 0);
  return *carrier;
}

bool IDelegateService::registerForBroadcastWithDataTypeOrScheme(const char* action,
                                                                const std::vector<std::string>& dataTypes,
                                                                const std::vector<std::string>& dataSchemes,
                                                                BroadcastCallback callback) {
  if (is_empty(action)) {
    s_logger.e("%s:Intent is null or empty", __func__);
    return false;
  }
  const Connection carrier = registerForBroadcastWithDataTypeOrSchemeInternal(action, dataTypes, dataSchemes, callback);
  if (carrier == kNoConnection) return false;
  m_broadcasts.add({action, dataTypes, dataSchemes, std::move(callback)}, carrier, m_binder,
                   [this](const auto& filter, Connection newest) { renew(filter, newest); });
  return true;
}

Connection IDelegateService::registerForBroadcastWithDataTypeOrSchemeInternal(
    const char* action, const std::vector<std::string>& dataTypes, const std::vector<std::string>& dataSchemes,
    BroadcastCallback callback, Connection only) {
  if (is_empty(action)) {
    s_logger.e("%s:Intent is null or empty", __func__);
    return kNoConnection;
  }
  const auto write = [&](vesk_payload* request) {
    String::write(request, action);
    StringArray::write(request, dataTypes);
    StringArray::write(request, dataSchemes);
  };
  const auto carrier =
      publish<BroadcastReceiverEndpoint>(m_binder, kRegisterForBroadcast, write, std::move(callback), only);
  if (!carrier) return kNoConnection;
  s_logger.i("%s:Registered to receive broadcasts for intent [%s] (result=%d)", __func__, action,
             *carrier != kNoConnection ? 1 : 0);
  return *carrier;
}

void IDelegateService::onBinderReconnectedCallback() {
  s_logger.i("%s:Binder reconnected, re-registering callbacks", __func__);
  const auto renew_on = [this](const auto& registration, Connection newest) { renew(registration, newest); };
  m_settings.replay(m_binder, renew_on);
  m_broadcasts.replay(m_binder, renew_on);
}

// A registration that fails here is tried again on the next connection.

void IDelegateService::renew(const SettingRegistration& setting, Connection connection) {
  registerForSecureSettingsInternal(setting.first.c_str(), setting.second, connection);
}

void IDelegateService::renew(const OrvelIntentFilter& filter, Connection connection) {
  registerForBroadcastWithDataTypeOrSchemeInternal(filter.action.c_str(), filter.dataTypes, filter.dataSchemes,
                                                   filter.callback, connection);
}

}  // namespace orvel::service_apis
