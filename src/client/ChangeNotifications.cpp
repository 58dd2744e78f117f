// Subscriptions to changes of the device's state.
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientState.h"
#include "client/Listeners.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::service_apis {
namespace {

constexpr char kPropertyChanged[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";
constexpr char kAccountAdded[] = "com.quarlo.hux.sso.action.account.added";
constexpr char kAccountRemoved[] = "com.quarlo.hux.sso.action.account.removed";
constexpr char kMaroConnectivity[] = "com.quarlo.speech.CONNECTIVITY_ACTION";
constexpr char kScreenOn[] = "android.intent.action.SCREEN_ON";
constexpr char kScreenOff[] = "android.intent.action.SCREEN_OFF";
constexpr char kTimeSync[] = "com.quarlo.velmos.service.timeservice.clock.TIME_SYNC";

// Broadcasts that carry no data.
bool register_for(IDelegateService& delegate, const char* action, BroadcastCallback listener) {
  return delegate.registerForBroadcastWithDataTypeOrScheme(action, {}, {}, std::move(listener));
}

// Registers for the two broadcasts that tell a state. The second is attempted even when the first fails.
bool register_for_state(IDelegateService& delegate, const char* action_true, const char* action_false,
                        std::function<void(bool)> callback) {
  const StateCallback shared(std::move(callback));
  const bool first = register_for(delegate, action_true, StateListener(true, shared));
  const bool second = register_for(delegate, action_false, StateListener(false, shared));
  return first && second;
}

}  // namespace

bool OrvelDelegateClient::registerForDeviceNameChange(std::function<void(std::string)> callback) {
  return m_state.ask<IDelegateService>(__func__, [&](IDelegateService& delegate) {
    return register_for(delegate, kPropertyChanged, DeviceNameListener(std::move(callback)));
  });
}

bool OrvelDelegateClient::registerForDeviceRegistrationChange(std::function<void(bool)> callback) {
  return m_state.ask<IDelegateService>(__func__, [&](IDelegateService& delegate) {
    return register_for_state(delegate, kAccountAdded, kAccountRemoved, std::move(callback));
  });
}

bool OrvelDelegateClient::registerForMaroConnectivityChange(std::function<void(bool)> callback) {
  return m_state.ask<IDelegateService>(__func__, [&](IDelegateService& delegate) {
    return register_for(delegate, kMaroConnectivity, MaroConnectivityListener(m_state, std::move(callback)));
  });
}

bool OrvelDelegateClient::registerForNetworkConnectivityChange(std::function<void(bool)> callback) {
  return m_state.ask<IAndroidConnectivityManager>(__func__, [&](IAndroidConnectivityManager& connectivity) {
    return connectivity.registerDefaultNetworkCallback(StateCallback(std::move(callback)));
  });
}

bool OrvelDelegateClient::unregisterForNetworkConnectivityChange() {
  return m_state.ask(__func__, &IAndroidConnectivityManager::unregisterNetworkCallback);
}

bool OrvelDelegateClient::registerForScreenStateChange(std::function<void(bool)> callback) {
  return m_state.ask<IDelegateService>(__func__, [&](IDelegateService& delegate) {
    return register_for_state(delegate, kScreenOn, kScreenOff, std::move(callback));
  });
}

bool OrvelDelegateClient::registerForPackageAction(std::string action, std::vector<std::string> dataTypes,
                                                   std::vector<std::string> schemes,
                                                   std::function<void(std::string, std::string)> callback) {
  return m_state.ask<IDelegateService>(__func__, [&](IDelegateService& delegate) {
    return delegate.registerForBroadcastWithDataTypeOrScheme(action.c_str(), dataTypes, schemes,
                                                             PackageListener(std::move(callback)));
  });
}

bool OrvelDelegateClient::registerForTimeSync(std::function<void(long long, long long)> callback) {
  return m_state.ask<IDelegateService>(__func__, [&](IDelegateService& delegate) {
    return register_for(delegate, kTimeSync, TimeSyncListener(std::move(callback)));
  });
}

bool OrvelDelegateClient::registerForSecureSettingIntChange(const std::string& key, int defaultValue,
                                                            std::function<void(int)> callback) {
  return m_state.ask<IDelegateService>(__func__, [&](IDelegateService& delegate) {
    return delegate.registerForSecureSettings(key.c_str(), SettingIntListener(defaultValue, std::move(callback)));
  });
}

}  // namespace orvel::service_apis
