#include "client/Listeners.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "client/ClientState.h"
#include "client/SettingValue.h"

namespace orvel::service_apis {
namespace {

constexpr char kDeviceNameExtra[] = "com.quarlo.hux.sso.property.devicename";
constexpr char kConnectivityExtra[] = "com.quarlo.speech.EXTRA_CONNECTIVITY";
constexpr char kPackageNameExtra[] = "packageName";
constexpr char kOldTimeExtra[] = "com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS";
constexpr char kNewTimeExtra[] = "com.quarlo.velmos.service.timeservice.clock.NEW_TIME_MILLIS";

struct EventResult {
  const char* name;
  bool retryable;
};

// By the event service's codes; the last one stands for every code beyond it too. Unknown results are retryable;
// invalid events are not.
constexpr std::array<EventResult, 7> kEventResults = {{
    {"SUCCESS", false},
    {"SUCCESS_NO_CONTENT", false},
    {"MARO_DISCONNECTED", true},
    {"INTERNAL_ERROR", true},
    {"TIMEOUT", true},
    {"INVALID_EVENT", false},
    {"UNKNOWN_ERROR", true},
}};

}  // namespace

void DeviceNameListener::operator()(const std::string&, const std::string&, const Bundle& extras) const {
  // Other properties of the account ride on the same broadcast and carry no name.
  if (std::string name = extras.get(kDeviceNameExtra, std::string()); !name.empty()) m_callback(std::move(name));
}

void StateListener::operator()(const std::string&, const std::string&, const Bundle&) const {
  m_callback(m_state);
}

void MaroConnectivityListener::operator()(const std::string&, const std::string&, const Bundle& extras) const {
  m_client->maro_connectivity_changed(extras.get(kConnectivityExtra, 0) != 0, m_callback, m_under_lock);
}

void PackageListener::operator()(const std::string& action, const std::string& data, const Bundle& extras) const {
  if (std::optional<std::string> package = find_package(data)) return m_callback(action, *std::move(package));
  std::string package = extras.get(kPackageNameExtra, std::string());
  if (package.empty()) package = data;
  m_callback(action, std::move(package));
}

void TimeSyncListener::operator()(const std::string&, const std::string&, const Bundle& extras) const {
  const long long old_time = extras.get(kOldTimeExtra, 0LL);
  const long long new_time = extras.get(kNewTimeExtra, 0LL);
  s_client_logger.d("%s:time sync callback. old_timestamp=%lld, new_timestamp=%lld", __func__, old_time, new_time);
  m_callback(old_time, new_time);
}

void SettingIntListener::operator()(const std::string&, const std::string& value) const {
  m_callback(setting_to_int(value, m_default));
}

void SettingListener::operator()(const std::string&, const std::string& value) const {
  m_callback(value.empty() ? std::nullopt : std::optional<std::string>(value));
}

EventOutcome outcome_of(OrvelSimEventResult_t result) {
  const auto [name, retryable] = kEventResults.at(std::min<std::size_t>(result, kEventResults.size() - 1));
  s_client_logger.i("%s:OrvelSimEventStatusCallback, result_str=%s, is_retryable=%s", "operator()", name,
                    retryable ? "true" : "false");
  return {name, retryable};
}

void EventResultListener::operator()(OrvelSimEventResult_t result) const {
  EventOutcome outcome = outcome_of(result);
  m_callback(std::move(outcome.result), outcome.retryable);
}

void DirectiveListener::operator()(const OrvelSimDirective& directive) const {
  m_callback(directive.directive1, directive.directive2, directive.directive3, directive.directive4,
             directive.directive5, directive.directive6, directive.directive7);
}

std::optional<std::string> find_package(const std::string& data) {
  constexpr char kPrefix[] = "package:";
  const std::size_t prefix = data.find(kPrefix);
  if (prefix == std::string::npos) return std::nullopt;
  const std::size_t begin = prefix + sizeof(kPrefix) - 1;
  const std::size_t end = data.find_first_of("\r\n", begin);
  return data.substr(begin, end == std::string::npos ? end : end - begin);
}

}  // namespace orvel::service_apis
