#include "StatusLine.h"

#include <utility>

#include "orvel/OrvelDelegateClient.h"

namespace {

constexpr char kAlarmSetting[] = "volume_alarm";
constexpr char kNamespace[] = "StatusLine";

orvel::service_apis::OrvelDelegateClient& client() {
  return orvel::service_apis::OrvelDelegateClient::getClient();
}

}  // namespace

bool StatusLine::start() {
  if (!client().initialize()) return false;
  const auto learn = [this](auto StatusLine::*member) {
    return [this, member](auto value) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      this->*member = std::move(value);
    };
  };
  // Subscribed before it asks: what changes in between is told.
  const bool subscribed = client().registerForDeviceNameChange(learn(&StatusLine::m_name)) &&
                          client().registerForScreenStateChange(learn(&StatusLine::m_screen_on)) &&
                          client().registerForSecureSettingIntChange(kAlarmSetting, 0, learn(&StatusLine::m_alarm)) &&
                          client().registerForDirective(kNamespace, [this](const std::string& said, const auto&...) {
                            const std::lock_guard<std::mutex> lock(m_mutex);
                            m_said = said;
                          });
  learn (&StatusLine::m_name)(client().getDeviceName());
  learn (&StatusLine::m_screen_on)(client().isScreenOn());
  learn (&StatusLine::m_alarm)(client().getSecureSettingInt(kAlarmSetting, 0));
  return subscribed;
}

std::string StatusLine::text() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return (m_name.empty() ? "unknown device" : m_name) + ", screen " + (m_screen_on ? "on" : "off") + ", alarm at " +
         std::to_string(m_alarm);
}

std::string StatusLine::said() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_said;
}

bool StatusLine::acknowledge() {
  const auto result = [this](const std::string& became, bool) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_acknowledged = became;
  };
  return client().sendEvent(kNamespace, "Shown", "", "", "", "", "", false, said(), result);
}

std::string StatusLine::acknowledged() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_acknowledged;
}
