// The device's identity, settings and power.
#include <optional>
#include <string>
#include <utility>

#include "client/ClientState.h"
#include "client/SettingValue.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::service_apis {
namespace {

constexpr char kNoNumber[] = "the value of the setting is not a number that fits in an int";

}  // namespace

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
    const std::string value = delegate.getSecureSetting(key.c_str());
    CallRecord::fail(CallStatus::Code::kInvalidArgument, kNoNumber);  // unless it is one: the conversion may throw
    const int number = setting_to_int(value, defaultValue);
    CallRecord::take_back(kNoNumber);
    return number;
  };
  return m_state.ask<IDelegateService>(__func__, query, defaultValue);
}

std::optional<std::string> OrvelDelegateClient::getSecureSetting(const std::string& key) {
  std::string value = m_state.ask(__func__, &IDelegateService::getSecureSetting, key.c_str());
  if (value.empty()) return std::nullopt;
  return value;
}

bool OrvelDelegateClient::isDeviceRegistered() {
  const CallRecord record(__func__, Service::kDelegate);
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
