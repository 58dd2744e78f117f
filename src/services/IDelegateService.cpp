#include "services/IDelegateService.h"

#include <optional>
#include <utility>

#include "binder/CallRecord.h"
#include "binder/OrvelLogger.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"
#include "services/ServiceNames.h"
#include "services/Transact.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("IDelegateService");

constexpr char kDescriptor[] = "com.quarlo.orveldelegate.IDelegateService";

// The missing codes belong to methods that this client does not call.
enum Transaction : unsigned int {
  kGetDeviceInfo = 14,
  kGetSecureSetting = 15,
  kGetPfm = 17,
  kGetCor = 18,
  kGetPackageNamesForUid = 21,
  kCheckSystemFeature = 26,
  kSendBroadcast = 27,
  kRegisterForBroadcast = 28,
  kStartService = 29,
  kStartForegroundService = 30,
  kGetDirectedId = 32,
  kGetDeviceName = 33,
  kRegisterForSecureSettings = 34,
  kStartActivity = 37,
  kSendBroadcastWithPermission = 38,
  kGetDsnV2 = 42,
  kGetApplicationInfo = 53,
  kGetPackageInfo = 54,
  kGetRawResourceAsString = 55,
  kQueryBroadcastReceivers = 59,
  kGetLaunchIntentForPackage = 60,
};

// The string that the service answers; empty without a connection.
std::optional<std::string> query(Binder& binder, Transaction code) {
  return transact(binder, kDescriptor, code, kNoArguments, String::read);
}

// True, with an error line, when an argument of `method` is missing.
bool is_missing(const char* method, const char* argument, const char* what) {
  if (argument && *argument != '\0') return false;
  s_logger.e("%s:%s is null or empty", method, what);
  CallRecord::fail(CallStatus::Code::kInvalidArgument, std::string(what) + " is empty");
  return true;
}

// True when an argument of `method` is empty; with an error line, unless the service is not bound, which comes first
// and is silent.
bool is_empty(Binder& binder, const char* method, const std::string& argument, const char* what) {
  if (!argument.empty()) return false;
  if (binder.good()) s_logger.e("%s:%s is empty", method, what);
  CallRecord::fail(CallStatus::Code::kInvalidArgument, std::string(what) + " is empty");
  return true;
}

// True when the service has answered to the intent.
bool send(Binder& binder, Transaction code, const OrvelIntent& intent) {
  const auto write = [&](vesk_payload* request) { return intent.write(request); };
  return transact(binder, kDescriptor, code, write, replied).value_or(false);
}

// The service's record about a package; null when there is none.
template <typename Record>
std::unique_ptr<Record> query(Binder& binder, Transaction code, const char* method, const char* package,
                              long long flags) {
  if (is_missing(method, package, "Package name")) return nullptr;
  const auto write = [=](vesk_payload* request) {
    String::write(request, package);
    Int64::write(request, flags);
  };
  const auto read = [](vesk_buffer* reply) {
    auto record = std::make_unique<Record>();
    if (!Record::read(reply, *record)) record.reset();
    return record;
  };
  return transact(binder, kDescriptor, code, write, read).value_or(nullptr);
}

// Sends a registration: its arguments, then the endpoint that holds the callback. The service keeps the endpoint for as
// long as it may call it. Returns the connection that has taken the registration, kNoConnection when none has; empty
// when the service is not bound, or not by `required_connection`.
template <typename Endpoint>
std::optional<Connection> publish(Binder& binder, Transaction code, const RequestWriter& write_arguments,
                                  const vesk::EndpointPtr<Endpoint>& endpoint, Connection required_connection) {
  const auto write = [&](vesk_payload* request) {
    write_arguments(request);
    vesk_write_endpoint(request, endpoint->get_endpoint());
  };
  const auto reply = binder.call_if_bound(kDescriptor, code, write, required_connection);
  if (!reply) return std::nullopt;
  return reply->connection();
}

}  // namespace

// A registration that fails to be renewed is tried again on the next connection.
IDelegateService::IDelegateService(void* runtime, Binder::Bind bind)
    : m_settings(m_binder,
                 [this](const SettingRegistration& setting, Connection connection) {
                   return registerForSecureSettingsInternal(setting.first.c_str(), setting.second, connection) !=
                          kNoConnection;
                 }),
      m_broadcasts(m_binder,
                   [this](const OrvelIntentFilter& filter, Connection connection) {
                     return registerForBroadcastWithDataTypeOrSchemeInternal(
                                filter.action.c_str(), filter.dataTypes, filter.dataSchemes, filter.callback,
                                connection, filter.intent_callback) != kNoConnection;
                   }),
      m_binder(
          runtime, service_names::kDelegate, /*is_android_service=*/false, [this] { onBinderReconnectedCallback(); },
          LinkBoard::instance().record(kService), bind) {}

DeviceInfo IDelegateService::getDeviceInfo() {
  std::optional<DeviceInfo> info = transact(m_binder, kDescriptor, kGetDeviceInfo, kNoArguments, DeviceInfo::read);
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

// The name and the serial number identify the owner, so their values are logged at debug level only.

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
  if (is_missing(__func__, key, "Setting key")) return {};
  s_logger.i("%s:Reading setting key [%s]", __func__, key);
  const auto write = [key](vesk_payload* request) { String::write(request, key); };
  std::optional<std::string> value = transact(m_binder, kDescriptor, kGetSecureSetting, write, String::read);
  if (!value) return {};
  s_logger.i("%s:Read setting key [%s] value [%s]", __func__, key, value->c_str());
  return *std::move(value);
}

bool IDelegateService::registerForSecureSettings(const char* key, SettingCallback callback,
                                                 const std::shared_ptr<Callback>& ends) {
  if (is_missing(__func__, key, "Setting key")) return false;
  const Connection taken_by = registerForSecureSettingsInternal(key, callback);
  if (taken_by == kNoConnection) return false;
  m_settings.add({key, std::move(callback)}, taken_by, ends);
  return true;
}

Connection IDelegateService::registerForSecureSettingsInternal(const char* key, SettingCallback callback,
                                                               Connection required_connection) {
  if (is_missing(__func__, key, "Setting key")) return kNoConnection;
  const auto write = [key](vesk_payload* request) { String::write(request, key); };
  const auto endpoint = vesk::make_endpoint<SettingsReceiverEndpoint>(std::move(callback));
  const auto taken_by = publish(m_binder, kRegisterForSecureSettings, write, endpoint, required_connection);
  if (!taken_by) return kNoConnection;
  s_logger.i("%s:Registered for updates to setting key [%s] (result=%d)", __func__, key,
             *taken_by != kNoConnection ? 1 : 0);
  return *taken_by;
}

bool IDelegateService::registerForBroadcastWithDataTypeOrScheme(const char* action,
                                                                const std::vector<std::string>& dataTypes,
                                                                const std::vector<std::string>& dataSchemes,
                                                                BroadcastCallback callback) {
  if (is_missing(__func__, action, "Intent")) return false;
  return registerForBroadcast({action, dataTypes, dataSchemes, std::move(callback)}, nullptr);
}

bool IDelegateService::registerForBroadcast(OrvelIntentFilter filter, const std::shared_ptr<Callback>& ends) {
  const Connection taken_by =
      registerForBroadcastWithDataTypeOrSchemeInternal(filter.action.c_str(), filter.dataTypes, filter.dataSchemes,
                                                       filter.callback, kNoConnection, filter.intent_callback);
  if (taken_by == kNoConnection) return false;
  m_broadcasts.add(std::move(filter), taken_by, ends);
  return true;
}

Connection IDelegateService::registerForBroadcastWithDataTypeOrSchemeInternal(
    const char* action, const std::vector<std::string>& dataTypes, const std::vector<std::string>& dataSchemes,
    BroadcastCallback callback, Connection required_connection, IntentCallback intent_callback) {
  if (is_missing(__func__, action, "Intent")) return kNoConnection;
  const auto write = [&](vesk_payload* request) {
    String::write(request, action);
    StringArray::write(request, dataTypes);
    StringArray::write(request, dataSchemes);
  };
  const auto endpoint = vesk::make_endpoint<BroadcastReceiverEndpoint>(std::move(intent_callback), std::move(callback));
  const auto taken_by = publish(m_binder, kRegisterForBroadcast, write, endpoint, required_connection);
  if (!taken_by) return kNoConnection;
  s_logger.i("%s:Registered to receive broadcasts for intent [%s] (result=%d)", __func__, action,
             *taken_by != kNoConnection ? 1 : 0);
  return *taken_by;
}

// The two broadcasts take their intent by value, as the remote interface declares it.

bool IDelegateService::sendBroadcast(OrvelIntent intent) {  // NOLINT(performance-unnecessary-value-param)
  return send(m_binder, kSendBroadcast, intent);
}

bool IDelegateService::sendBroadcastWithPermission(OrvelIntent intent,  // NOLINT(performance-unnecessary-value-param)
                                                   const std::string& permission) {
  const auto write = [&](vesk_payload* request) { return intent.write(request) && String::write(request, permission); };
  return transact(m_binder, kDescriptor, kSendBroadcastWithPermission, write, replied).value_or(false);
}

bool IDelegateService::startActivity(const OrvelIntent& intent) {
  return send(m_binder, kStartActivity, intent);
}

bool IDelegateService::startForegroundService(const OrvelIntent& intent) {
  return send(m_binder, kStartForegroundService, intent);
}

bool IDelegateService::startService(const OrvelIntent& intent) {
  return send(m_binder, kStartService, intent);
}

std::unique_ptr<ApplicationInfo> IDelegateService::getApplicationInfo(const char* packageName, long long flags) {
  s_logger.i("%s:Read applicationInfo for package [%s]", __func__, packageName ? packageName : "");
  return query<ApplicationInfo>(m_binder, kGetApplicationInfo, __func__, packageName, flags);
}

std::unique_ptr<PackageInfo> IDelegateService::getPackageInfo(const char* packageName, long long flags) {
  s_logger.i("%s:Read packageInfo for package [%s]", __func__, packageName ? packageName : "");
  return query<PackageInfo>(m_binder, kGetPackageInfo, __func__, packageName, flags);
}

std::string IDelegateService::getRawResourceAsString(const char* packageName, int resourceId) {
  if (is_missing(__func__, packageName, "Package name")) return {};
  const auto write = [=](vesk_payload* request) {
    String::write(request, packageName);
    Int32::write(request, resourceId);
  };
  std::optional<std::string> resource = transact(m_binder, kDescriptor, kGetRawResourceAsString, write, String::read);
  if (!resource) return {};
  s_logger.i("%s:Read raw resource for package [%s] resourceId [%d] result [%s]", __func__, packageName, resourceId,
             resource->c_str());
  return *std::move(resource);
}

bool IDelegateService::checkSystemFeature(const char* featureName) {
  if (is_missing(__func__, featureName, "Feature name")) return false;
  const auto write = [=](vesk_payload* request) { String::write(request, featureName); };
  const std::optional<int> answer = transact(m_binder, kDescriptor, kCheckSystemFeature, write, Int32::read);
  if (!answer) return false;
  const bool available = *answer != 0;
  s_logger.i("%s:System feature [%s] is available: %d", __func__, featureName, available ? 1 : 0);
  return available;
}

std::vector<std::string> IDelegateService::getPackageNamesForUid(int uid) {
  const auto write = [=](vesk_payload* request) { Int32::write(request, uid); };
  auto names = transact(m_binder, kDescriptor, kGetPackageNamesForUid, write, StringArray::read);
  if (!names) return {};
  s_logger.i("%s:Retrived package names for uid %d", __func__, uid);
  return *std::move(names);
}

bool IDelegateService::queryBroadcastReceivers(std::string action, long long flags,
                                               std::vector<std::unique_ptr<OrvelResolveInfo>>& out) {
  if (is_empty(m_binder, __func__, action, "Intent")) return false;
  const auto write = [&](vesk_payload* request) {
    String::write(request, action);
    Int64::write(request, flags);
  };
  const auto reply = m_binder.call_if_bound(kDescriptor, kQueryBroadcastReceivers, write);
  if (!reply) return false;
  if (OrvelResolveInfoArray::read(reply->get(), out)) {
    // Not the name of these records, but log readers look for it.
    s_logger.d("%s:Read %zu RunningAppProcessInfo items", __func__, out.size());
    return true;
  }
  s_logger.e("%s:Failed to read OrvelResolveInfoArray from reply", __func__);
  out.clear();
  return false;
}

std::vector<std::string> IDelegateService::getInstalledPackages(long long flags) {
  s_logger.e("%s:Not implemented - get installed packages. flags=[%d]", __func__, static_cast<int>(flags));
  return {};
}

std::unique_ptr<OrvelIntent> IDelegateService::getLaunchIntentForPackage(std::string packageName) {
  if (is_empty(m_binder, __func__, packageName, "Package name")) return nullptr;
  const auto write = [&](vesk_payload* request) { String::write(request, packageName); };
  const auto read = [](vesk_buffer* reply) { return std::make_unique<OrvelIntent>(OrvelIntent::read(reply)); };
  return transact(m_binder, kDescriptor, kGetLaunchIntentForPackage, write, read).value_or(nullptr);
}

void IDelegateService::onBinderReconnectedCallback() {
  s_logger.i("%s:Binder reconnected, re-registering callbacks", __func__);
  m_settings.replay();
  m_broadcasts.replay();
}

}  // namespace orvel::service_apis
