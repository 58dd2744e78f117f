// The receiver of the changes of one secure setting.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "binder/IpcEndpoint.h"

namespace orvel::service_apis {

using SettingCallback = std::function<void(const std::string& key, const std::string& value)>;

// The delegate service calls it two-way and waits for the answer, which is empty. Run-loop thread.
class SettingsReceiverEndpoint : public vesk::IpcEndpoint {
 public:
  // An empty callback throws when a change arrives.
  explicit SettingsReceiverEndpoint(SettingCallback callback) : m_callback(std::move(callback)) {}

  int call(void* cookie, unsigned int code, vesk_identity* identity, vesk_buffer* in, vesk_payload* reply);

 private:
  SettingCallback m_callback;
};

}  // namespace orvel::service_apis
