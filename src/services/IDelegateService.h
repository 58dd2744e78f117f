// The delegate service: the device's identity, its secure settings, and the broadcasts.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "binder/Binder.h"
#include "parcel/DeviceInfo.h"
#include "services/OrvelIntentFilter.h"
#include "services/ReplayList.h"
#include "services/SettingsReceiverEndpoint.h"

namespace orvel::service_apis {

// Every query is one transaction. An unbound service, a failed call and a remote exception all read as the empty value.
//
// The service forgets all registrations when it dies, so they are kept and made again each time that it has been bound
// anew: settings first, then broadcasts, each in the order of insertion. Two for the same key or action are two. What
// the service refused is not kept, and nothing is ever removed. Threads: any.
class IDelegateService {
 public:
  // Blocks until the service is bound or given up. `context` is the libvesk runtime, borrowed.
  explicit IDelegateService(void* context);

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

  // Calls `callback` with the key and the new value when a secure setting changes. False for a null or empty key and
  // when the service did not take the registration.
  bool registerForSecureSettings(const char* key, SettingCallback callback);

  // Calls `callback` with the action, the data and the extras of every broadcast of that action which has one of the
  // MIME types and one of the URI schemes; two empty lists are for broadcasts without data. False for a null or empty
  // action and when the service did not take the registration.
  bool registerForBroadcastWithDataTypeOrScheme(const char* action, const std::vector<std::string>& dataTypes,
                                                const std::vector<std::string>& dataSchemes,
                                                BroadcastCallback callback);

  // Makes all registrations again. For the Binder, on the run-loop thread, after each successful rebind; takes no lock
  // of its own.
  void onBinderReconnectedCallback();

 private:
  using SettingRegistration = std::pair<std::string, SettingCallback>;

  // Register without keeping. They return the connection that has taken the registration, kNoConnection for none.
  // `only` as for Binder::call.
  Connection registerForSecureSettingsInternal(const char* key, SettingCallback callback,
                                               Connection only = kNoConnection);
  Connection registerForBroadcastWithDataTypeOrSchemeInternal(const char* action,
                                                              const std::vector<std::string>& dataTypes,
                                                              const std::vector<std::string>& dataSchemes,
                                                              BroadcastCallback callback,
                                                              Connection only = kNoConnection);

  void renew(const SettingRegistration& setting, Connection connection);
  void renew(const OrvelIntentFilter& filter, Connection connection);

  ReplayList<SettingRegistration> m_settings;
  ReplayList<OrvelIntentFilter> m_broadcasts;
  Binder m_binder;  // Last: what it calls back uses the rest.
};

}  // namespace orvel::service_apis
