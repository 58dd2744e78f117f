// The delegate service: the device's identity, its secure settings, broadcasts, intents and packages.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "binder/Binder.h"
#include "orvel/OrvelIntent.h"
#include "parcel/ApplicationInfo.h"
#include "parcel/DeviceInfo.h"
#include "parcel/OrvelResolveInfo.h"
#include "parcel/PackageInfo.h"
#include "services/OrvelIntentFilter.h"
#include "services/ReplayList.h"
#include "services/SettingsReceiverEndpoint.h"

namespace orvel::service_apis {

// Every query is one transaction. An unbound service, a failed call and a remote exception all read as the empty value.
// Flags are the platform's package manager's, passed on as they are.
//
// The service forgets all registrations when it dies, so they are kept and made again each time that it has been bound
// anew: settings first, then broadcasts, each in the order of insertion. Registering the same key or action twice makes
// two registrations. A registration that the service refused is not kept. Threads: any.
class IDelegateService {
 public:
  static constexpr Service kService = Service::kDelegate;

  // Blocks until the service is bound or given up, unless `bind` says otherwise. `runtime` is borrowed.
  explicit IDelegateService(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  DeviceInfo getDeviceInfo();

  // The preferred marketplace.
  std::string getPFM();

  // The country of residence.
  std::string getCOR();

  // The owner's directed identifier; empty also when the service answers "<unknown>".
  std::string getDirectedId();

  std::string getDeviceName();

  // The device serial number.
  std::string getDSNV2();

  // The value of a secure setting; empty also when it is not set, and for a null or empty key, which is not sent.
  std::string getSecureSetting(const char* key);

  // True when the service has taken the registration: from then on `callback` gets the key and each new value of the
  // secure setting. False otherwise, and for a null or empty key. `ends`, if there is one, is what ends the
  // registration.
  bool registerForSecureSettings(const char* key, SettingCallback callback,
                                 const std::shared_ptr<Callback>& ends = nullptr);

  // True when the service has taken the registration: from then on `callback` gets the action, the data and the extras
  // of every broadcast of that action which has one of the MIME types and one of the URI schemes; two empty lists are
  // for broadcasts without data. False otherwise, and for a null or empty action.
  bool registerForBroadcastWithDataTypeOrScheme(const char* action, const std::vector<std::string>& dataTypes,
                                                const std::vector<std::string>& dataSchemes,
                                                BroadcastCallback callback);
  // The same with all that a registration has, and with what ends it, if anything does.
  bool registerForBroadcast(OrvelIntentFilter filter, const std::shared_ptr<Callback>& ends);

  // The connection that has taken the registration, which is not kept; kNoConnection when none has, and for a null or
  // empty key or action. With `required_connection`, it is made on that connection or not at all.
  Connection registerForSecureSettingsInternal(const char* key, SettingCallback callback,
                                               Connection required_connection = kNoConnection);
  Connection registerForBroadcastWithDataTypeOrSchemeInternal(
      const char* action, const std::vector<std::string>& dataTypes, const std::vector<std::string>& dataSchemes,
      BroadcastCallback callback, Connection required_connection = kNoConnection, IntentCallback intent_callback = {});

  // True when the service answered. It does not say what became of the intent: an activity may not have been started.
  bool sendBroadcast(OrvelIntent intent);
  bool sendBroadcastWithPermission(OrvelIntent intent, const std::string& permission);
  bool startActivity(const OrvelIntent& intent);
  bool startForegroundService(const OrvelIntent& intent);
  bool startService(const OrvelIntent& intent);

  // The record; null on failure, for a package that is not installed, and for a null or empty name, which is not sent.
  std::unique_ptr<ApplicationInfo> getApplicationInfo(const char* packageName, long long flags);
  std::unique_ptr<PackageInfo> getPackageInfo(const char* packageName, long long flags);

  // A resource of a package, as text; empty also for a null or empty name, which is not sent.
  std::string getRawResourceAsString(const char* packageName, int resourceId);

  // True when the device has the feature; false also for a null or empty name, which is not sent.
  bool checkSystemFeature(const char* featureName);

  std::vector<std::string> getPackageNamesForUid(int uid);

  // True when the receivers of a broadcast of the action were appended to `out`. False, and `out` empty, on failure;
  // false, and `out` as it was, for an unbound service and an empty action, which is not sent.
  bool queryBroadcastReceivers(std::string action, long long flags,
                               std::vector<std::unique_ptr<OrvelResolveInfo>>& out);

  // Always empty: not implemented, and asks no service. IOrvelPackageManager has the packages.
  std::vector<std::string> getInstalledPackages(long long flags);

  // The intent that starts the package's main activity, empty when the call failed and for a package without such an
  // activity. Null for an unbound service and for an empty name, which is not sent.
  std::unique_ptr<OrvelIntent> getLaunchIntentForPackage(std::string packageName);

  // Makes all registrations again. For the Binder, on the run-loop thread, after each successful rebind; takes no lock
  // of its own.
  void onBinderReconnectedCallback();

  Binder& binder() { return m_binder; }

 private:
  using SettingRegistration = std::pair<std::string, SettingCallback>;

  ReplayList<SettingRegistration> m_settings;
  ReplayList<OrvelIntentFilter> m_broadcasts;
  Binder m_binder;  // Last: what it calls back uses the rest.
};

}  // namespace orvel::service_apis
