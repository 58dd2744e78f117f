// Sending intents, and asking about packages and processes.
#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientState.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::service_apis {
namespace {

using Processes = std::vector<std::unique_ptr<RunningAppProcessInfo>>;

// The platform's importance of a process that the user is looking at.
constexpr int kForegroundImportance = 100;

// Returns what `send` makes of the delegate service and the intent; false, with an error line, for a null intent.
template <typename Send>
bool send_intent(ClientState& state, const char* method, const OrvelIntent* intent, Send send) {
  if (!intent) {
    s_client_logger.e("%s:intent is null", method);
    const CallRecord record(method, Service::kDelegate);
    CallRecord::fail(CallStatus::Code::kInvalidArgument, "the intent is null");
    return false;
  }
  return state.ask<IDelegateService>(method,
                                     [&](IDelegateService& delegate) { return std::invoke(send, delegate, *intent); });
}

// The same with the log line of what was started, which `kind` names.
bool start_service(ClientState& state, const char* method, const OrvelIntent* intent, const char* kind,
                   bool (IDelegateService::*start)(const OrvelIntent&)) {
  return send_intent(state, method, intent, [=](IDelegateService& delegate, const OrvelIntent& service) {
    const bool started = (delegate.*start)(service);
    s_client_logger.d("%s:Started %s with intent action=%s, package=%s, class=%s, status=%d", method, kind,
                      service.action.c_str(), service.component.package_name.c_str(),
                      service.component.class_name.c_str(), started ? 1 : 0);
    return started;
  });
}

// The value under the key, of the default's type, in the application's metadata; else the default.
template <typename Value>
Value meta_data(ClientState& state, const char* method, const std::string& package, long long flags,
                const std::string& key, const Value& default_value) {
  const auto query = [&](IDelegateService& delegate) {
    const auto application = delegate.getApplicationInfo(package.c_str(), flags);
    if (application) return application->metaData.get(key, default_value);
    s_client_logger.e("%s:Failed to get application info for package: %s, key: %s", method, package.c_str(),
                      key.c_str());
    return default_value;
  };
  return state.ask<IDelegateService>(method, query, default_value);
}

// What `version` takes from the package's record; empty without a record.
std::string version_of(ClientState& state, const char* method, const std::string& package, long long flags,
                       std::string (*version)(PackageInfo& info)) {
  return state.ask<IDelegateService>(method, [&](IDelegateService& delegate) -> std::string {
    const auto info = delegate.getPackageInfo(package.c_str(), flags);
    if (info) return version(*info);
    s_client_logger.e("%s:Failed to get package info for package: %s", method, package.c_str());
    return {};
  });
}

std::optional<Processes> running_processes(IActivityManager& activities, const char* method) {
  Processes processes;
  if (activities.getRunningAppProcessesInfo(processes)) return processes;
  s_client_logger.e("%s:Failed to get running app processes", method);
  return std::nullopt;
}

}  // namespace

bool OrvelDelegateClient::broadcastIntentWithIntKey(const std::string& action, const std::string& packageName,
                                                    const std::string& className, const std::string& key, int value) {
  const char* const method = __func__;
  return m_state.ask<IDelegateService>(method, [&](IDelegateService& delegate) {
    s_client_logger.i("%s:Broadcasting intent with action=[%s], package=[%s], class=[%s], key=[%s], value=[%d]", method,
                      action.c_str(), packageName.c_str(), className.c_str(), key.c_str(), value);
    OrvelIntent intent;
    intent.action = action;
    intent.component = {packageName, className};  // for this component alone; the intent's own package stays empty
    intent.extras.put(key, value);
    const bool sent = delegate.sendBroadcast(std::move(intent));
    s_client_logger.i("%s:Intent broadcasted, status=%d", method, sent ? 1 : 0);
    return sent;
  });
}

bool OrvelDelegateClient::broadcastIntent(const OrvelIntent* intent) {
  const char* const method = __func__;
  const auto send = [&](IDelegateService& delegate, const OrvelIntent& broadcast) {
    s_client_logger.d("%s:Broadcasting intent with action=[%s], package=[%s], class=[%s]", method,
                      broadcast.action.c_str(), broadcast.component.package_name.c_str(),
                      broadcast.component.class_name.c_str());
    const bool sent = delegate.sendBroadcast(broadcast);
    s_client_logger.d("%s:Intent broadcasted, status=%d", method, sent ? 1 : 0);
    return sent;
  };
  return send_intent(m_state, method, intent, send);
}

bool OrvelDelegateClient::broadcastIntentWithPermission(const OrvelIntent* intent, const std::string& permission) {
  const char* const method = __func__;
  const auto send = [&](IDelegateService& delegate, const OrvelIntent& broadcast) {
    s_client_logger.d(
        "%s:broadcastIntentWithPermission, action=[%s], package=[%s], component.package_name=[%s], "
        "component.class_name=[%s], permission=[%s]",
        method, broadcast.action.c_str(), broadcast.package.c_str(), broadcast.component.package_name.c_str(),
        broadcast.component.class_name.c_str(), permission.c_str());
    const bool sent = delegate.sendBroadcastWithPermission(broadcast, permission);
    s_client_logger.d("%s:broadcastIntentWithPermission, status=%d", method, sent ? 1 : 0);
    return sent;
  };
  return send_intent(m_state, method, intent, send);
}

bool OrvelDelegateClient::startActivity(const OrvelIntent* intent) {
  return send_intent(m_state, __func__, intent, &IDelegateService::startActivity);
}

bool OrvelDelegateClient::startForegroundService(const OrvelIntent* intent) {
  return start_service(m_state, __func__, intent, "foreground service", &IDelegateService::startForegroundService);
}

bool OrvelDelegateClient::startService(const OrvelIntent* intent) {
  return start_service(m_state, __func__, intent, "service", &IDelegateService::startService);
}

bool OrvelDelegateClient::launchApplicationWithPackageName(const std::string& packageName) {
  const char* const method = __func__;
  return m_state.ask<IDelegateService>(method, [&](IDelegateService& delegate) {
    const auto intent = delegate.getLaunchIntentForPackage(packageName);
    if (!intent) {
      s_client_logger.e("%s:Failed to get launch intent for package: %s", method, packageName.c_str());
      return false;
    }
    s_client_logger.d("%s:Launch intent action= [%s], package name=[%s], class name=[%s]", method,
                      intent->action.c_str(), packageName.c_str(), intent->component.class_name.c_str());
    return delegate.startActivity(*intent);
  });
}

int OrvelDelegateClient::getApplicationInfoMetaData(const std::string& packageName, long long flags,
                                                    const std::string& key, int defaultValue) {
  return meta_data(m_state, __func__, packageName, flags, key, defaultValue);
}

std::string OrvelDelegateClient::getApplicationInfoMetaData(
    const std::string& packageName, long long flags, const std::string& key,
    std::string defaultValue) {  // NOLINT(performance-unnecessary-value-param)
  return meta_data(m_state, __func__, packageName, flags, key, defaultValue);
}

std::string OrvelDelegateClient::getPackageVersionCode(const std::string& packageName, long long flags) {
  return version_of(m_state, __func__, packageName, flags,
                    [](PackageInfo& info) { return std::to_string(info.versionCode); });
}

std::string OrvelDelegateClient::getPackageVersionName(const std::string& packageName, long long flags) {
  return version_of(m_state, __func__, packageName, flags,
                    [](PackageInfo& info) { return std::move(info.versionName); });
}

std::string OrvelDelegateClient::getRawResourceAsString(const std::string& packageName, int resourceId) {
  return m_state.ask(__func__, &IDelegateService::getRawResourceAsString, packageName.c_str(), resourceId);
}

bool OrvelDelegateClient::hasSystemFeature(const std::string& feature) {
  return m_state.ask(__func__, &IDelegateService::checkSystemFeature, feature.c_str());
}

std::vector<std::string> OrvelDelegateClient::getPackageNamesForUid(int uid) {
  return m_state.ask(__func__, &IDelegateService::getPackageNamesForUid, uid);
}

std::vector<std::string> OrvelDelegateClient::getBroadcastReceiverPackageNames(const std::string& action,
                                                                               long long flags) {
  const char* const method = __func__;
  std::vector<std::string> names;
  m_state.ask<IDelegateService>(method, [&](IDelegateService& delegate) {
    std::vector<std::unique_ptr<OrvelResolveInfo>> receivers;
    if (!delegate.queryBroadcastReceivers(action, flags, receivers)) {
      s_client_logger.e("%s:Failed to query broadcast receivers for intent: %s", method, action.c_str());
      return false;
    }
    for (const auto& receiver : receivers) {
      if (!receiver || receiver->activityInfo.packageName.empty()) {
        s_client_logger.d("%s:Received OrvelResolveInfo with empty package name for intent: %s", method,
                          action.c_str());
        continue;
      }
      names.push_back(std::move(receiver->activityInfo.packageName));
      s_client_logger.d("%s:Found package: %s", method, names.back().c_str());
    }
    return true;
  });
  return names;
}

bool OrvelDelegateClient::getInstalledPackageNames(std::vector<std::string>& packageNames) {
  const char* const method = __func__;
  packageNames.clear();
  return m_state.ask<IOrvelPackageManager>(method, [&](IOrvelPackageManager& packages) {
    const bool known = packages.getPackages(packageNames);
    if (!known) s_client_logger.e("%s:Failed to get installed packages", method);
    return known;
  });
}

bool OrvelDelegateClient::getForegroundPackages(std::vector<std::string>& packageNames) {
  const char* const method = __func__;
  packageNames.clear();
  return m_state.ask<IActivityManager>(method, [&](IActivityManager& activities) {
    const auto processes = running_processes(activities, method);
    if (!processes) return false;
    for (const auto& process : *processes) {
      if (process->importance != kForegroundImportance) continue;
      s_client_logger.d("%s:Foreground process: %s", method, process->processName.c_str());
      for (std::string& package : process->processList) {
        s_client_logger.d("%s:  Package: %s", method, package.c_str());
        packageNames.push_back(std::move(package));
      }
    }
    std::sort(packageNames.begin(), packageNames.end());
    packageNames.erase(std::unique(packageNames.begin(), packageNames.end()), packageNames.end());
    return true;
  });
}

bool OrvelDelegateClient::getAppProcessState(const std::string& packageName, bool& found, int& importance,
                                             bool& isFocused) {
  const char* const method = __func__;
  return m_state.ask<IActivityManager>(method, [&](IActivityManager& activities) {
    const auto processes = running_processes(activities, method);
    if (!processes) return false;
    const auto runs_in = [&](const auto& process) {
      const std::vector<std::string>& packages = process->processList;
      return std::find(packages.begin(), packages.end(), packageName) != packages.end();
    };
    const auto process = std::find_if(processes->begin(), processes->end(), runs_in);
    found = process != processes->end();
    importance = found ? (*process)->importance : -1;
    isFocused = found && (*process)->isFocused;
    if (found) {
      s_client_logger.d("%s:Found running process for %s: importance=%d, isFocused=%d", method, packageName.c_str(),
                        importance, isFocused ? 1 : 0);
    } else {
      s_client_logger.d("%s:No running process found for %s", method, packageName.c_str());
    }
    return true;
  });
}

}  // namespace orvel::service_apis
