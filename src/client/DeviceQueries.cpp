// The device's identity, settings and power.
#include <string>
#include <utility>

#include "client/ClientState.h"
#include "client/SettingValue.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::service_apis {

std::string OrvelDelegateClient::getDeviceName() {
  return m_state.ask(__func__, &IDelegateService::getDeviceName);
}

std::string OrvelDelegateClient::getDeviceSerialNumber() {
  return m_state.ask(__func__, &IDelegateService::getDSNV2);
}

std::string OrvelDelegateClient::getDeviceType() {
  return m_state.ask<IDelegateService>(
      __func__, [](IDelegateService& delegate) { return std::move(delegate.getDeviceInfo().deviceType); });
}

std::string OrvelDelegateClient::getCustomerDirectedID() {
  return m_state.ask(__func__, &IDelegateService::getDirectedId);
}

std::string OrvelDelegateClient::getCountryOfResidence() {
  return m_state.ask(__func__, &IDelegateService::getCOR);
}

std::string OrvelDelegateClient::getPreferredMarketPlace() {
  return m_state.ask(__func__, &IDelegateService::getPFM);
}

int OrvelDelegateClient::getSecureSettingInt(const std::string& key, int defaultValue) {
  const auto query = [&](IDelegateService& delegate) {
    return setting_to_int(delegate.getSecureSetting(key.c_str()), defaultValue);
  };
  return m_state.ask<IDelegateService>(__func__, query, defaultValue);
}

bool OrvelDelegateClient::isDeviceRegistered() {
  return !getCustomerDirectedID().empty();
}

bool OrvelDelegateClient::isMaroConnected() {
  return m_state.isMaroConnected();
}

bool OrvelDelegateClient::isNetworkConnected() {
  return m_state.isNetworkConnected();
}

bool OrvelDelegateClient::isScreenOn() {
  return m_state.ask(__func__, &IPowerManagerService::isInteractive);
}

bool OrvelDelegateClient::acquirePartialWakeLock() {
  return m_state.ask(__func__, &IPowerManagerService::acquirePartialWakeLock);
}

bool OrvelDelegateClient::acquireFullWakeLock() {
  return m_state.ask(__func__, &IPowerManagerService::acquireFullWakeLock);
}

}  // namespace orvel::service_apis
