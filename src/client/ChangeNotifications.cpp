// Subscriptions to changes of the device's state: those that last until shutdown(), and those that end.
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientState.h"
#include "client/Listeners.h"
#include "client/Subscriptions.h"
#include "orvel/OrvelDelegateClient.h"
#include "orvel/OrvelIntent.h"

namespace orvel::service_apis {
namespace {

constexpr char kPropertyChanged[] = "com.quarlo.hux.sso.action.QuarloAccountPropertyService.property.changed";
constexpr char kAccountAdded[] = "com.quarlo.hux.sso.action.account.added";
constexpr char kAccountRemoved[] = "com.quarlo.hux.sso.action.account.removed";
constexpr char kMaroConnectivity[] = "com.quarlo.speech.CONNECTIVITY_ACTION";
constexpr char kScreenOn[] = "android.intent.action.SCREEN_ON";
constexpr char kScreenOff[] = "android.intent.action.SCREEN_OFF";
constexpr char kTimeSync[] = "com.quarlo.velmos.service.timeservice.clock.TIME_SYNC";

using NameCallback = SharedCallback<std::function<void(std::string)>>;
using PackageCallback = SharedCallback<std::function<void(std::string, std::string)>>;
using TimeCallback = SharedCallback<std::function<void(long long, long long)>>;
using IntCallback = SharedCallback<std::function<void(int)>>;

// What ends a registration; null for one that lasts until shutdown().
using Ends = std::shared_ptr<Callback>;

// The registrations, for both kinds of subscription.

// Broadcasts that carry no data.
bool register_for(IDelegateService& delegate, const char* action, BroadcastCallback listener, const Ends& ends) {
  return delegate.registerForBroadcast({action, {}, {}, std::move(listener)}, ends);
}

bool register_for_name(IDelegateService& delegate, const NameCallback& callback, const Ends& ends) {
  return register_for(delegate, kPropertyChanged, DeviceNameListener(callback), ends);
}

// Registers for the two broadcasts that tell a state. The second is attempted even when the first fails.
bool register_for_state(IDelegateService& delegate, const char* action_true, const char* action_false,
                        const StateCallback& callback, const Ends& ends) {
  const bool first = register_for(delegate, action_true, StateListener(true, callback), ends);
  const bool second = register_for(delegate, action_false, StateListener(false, callback), ends);
  return first && second;
}

bool register_for_account(IDelegateService& delegate, const StateCallback& callback, const Ends& ends) {
  return register_for_state(delegate, kAccountAdded, kAccountRemoved, callback, ends);
}

bool register_for_screen(IDelegateService& delegate, const StateCallback& callback, const Ends& ends) {
  return register_for_state(delegate, kScreenOn, kScreenOff, callback, ends);
}

bool register_for_time(IDelegateService& delegate, const TimeCallback& callback, const Ends& ends) {
  return register_for(delegate, kTimeSync, TimeSyncListener(callback), ends);
}

// A callable, borrowed for a call: what has code of its own for each kind of callback is this small.
template <typename Proxy>
class Registering {
 public:
  template <typename Callable>
  explicit Registering(const Callable& callable)
      : m_callable(&callable),
        m_call([](const void* called, Proxy& proxy) { return (*static_cast<const Callable*>(called))(proxy); }) {}

  bool operator()(Proxy& proxy) const { return m_call(m_callable, proxy); }

 private:
  const void* m_callable;
  bool (*m_call)(const void* callable, Proxy& proxy);
};

// True unless the function of a subscription is empty.
bool is_callable(const char* method, bool has_target) {
  if (has_target) return true;
  s_client_logger.e("%s:The callback is empty", method);
  CallRecord::fail(CallStatus::Code::kInvalidArgument, "the callback is empty");
  return false;
}

// Makes a registration that lasts until shutdown(). `make` gets the proxy, the callback and null.
template <typename Proxy, typename Function, typename Make>
bool keep(ClientState& state, const char* method, Function function, Make make) {
  const auto registering = [&](Proxy& proxy) {
    return make(proxy, SharedCallback<Function>(std::move(function), method), nullptr);
  };
  return state.ask<Proxy>(method, Registering<Proxy>(registering));
}

// Makes one that ends. `make` gets the proxy, the callback and what ends it. An empty function is refused.
template <typename Proxy, typename Function, typename Make>
Subscription subscribe(ClientState& state, const char* method, Function function, Make make) {
  const CallRecord record(method, Proxy::kService);
  if (!is_callable(method, static_cast<bool>(function))) return {};
  std::shared_ptr<Callback> made;
  const auto registering = [&](Proxy& proxy) {
    const SharedCallback<Function> callback(std::move(function), method);
    made = callback.shared();
    return make(proxy, callback, made);
  };
  const bool taken = state.ask<Proxy>(method, Registering<Proxy>(registering));
  return Subscriptions::of(made, taken);
}

// The registrations that have arguments, for both.

auto of_packages(const std::string& action, const std::vector<std::string>& types,
                 const std::vector<std::string>& schemes) {
  return [&](IDelegateService& delegate, const PackageCallback& callback, const Ends& ends) {
    if (!ends) {
      return delegate.registerForBroadcastWithDataTypeOrScheme(action.c_str(), types, schemes,
                                                               PackageListener(callback));
    }
    return delegate.registerForBroadcast({action, types, schemes, PackageListener(callback)}, ends);
  };
}

auto of_int_setting(const std::string& key, int default_value) {
  return [&key, default_value](IDelegateService& delegate, const IntCallback& callback, const Ends& ends) {
    return delegate.registerForSecureSettings(key.c_str(), SettingIntListener(default_value, callback), ends);
  };
}

auto of_connectivity(ClientState& state, bool under_lock) {
  return [&state, under_lock](IDelegateService& delegate, const StateCallback& callback, const Ends& ends) {
    return register_for(delegate, kMaroConnectivity, MaroConnectivityListener(state, callback, under_lock), ends);
  };
}

bool register_for_network(IAndroidConnectivityManager& connectivity, const StateCallback& callback, const Ends& ends) {
  return connectivity.registerDefaultNetworkCallback(callback, ends);
}

}  // namespace

// ---- Until shutdown() ----

bool OrvelDelegateClient::registerForDeviceNameChange(std::function<void(std::string)> callback) {
  return keep<IDelegateService>(m_state, __func__, std::move(callback), register_for_name);
}

bool OrvelDelegateClient::registerForDeviceRegistrationChange(std::function<void(bool)> callback) {
  return keep<IDelegateService>(m_state, __func__, std::move(callback), register_for_account);
}

bool OrvelDelegateClient::registerForMaroConnectivityChange(std::function<void(bool)> callback) {
  return keep<IDelegateService>(m_state, __func__, std::move(callback), of_connectivity(m_state, /*under_lock=*/true));
}

bool OrvelDelegateClient::registerForNetworkConnectivityChange(std::function<void(bool)> callback) {
  return keep<IAndroidConnectivityManager>(m_state, __func__, std::move(callback), register_for_network);
}

bool OrvelDelegateClient::unregisterForNetworkConnectivityChange() {
  return m_state.ask(__func__, &IAndroidConnectivityManager::unregisterNetworkCallback);
}

bool OrvelDelegateClient::registerForScreenStateChange(std::function<void(bool)> callback) {
  return keep<IDelegateService>(m_state, __func__, std::move(callback), register_for_screen);
}

// NOLINTBEGIN(performance-unnecessary-value-param): the texts go to the proxy by reference; the interface has values.
bool OrvelDelegateClient::registerForPackageAction(std::string action, std::vector<std::string> dataTypes,
                                                   std::vector<std::string> schemes,
                                                   std::function<void(std::string, std::string)> callback) {
  return keep<IDelegateService>(m_state, __func__, std::move(callback), of_packages(action, dataTypes, schemes));
}
// NOLINTEND(performance-unnecessary-value-param)

bool OrvelDelegateClient::registerForTimeSync(std::function<void(long long, long long)> callback) {
  return keep<IDelegateService>(m_state, __func__, std::move(callback), register_for_time);
}

bool OrvelDelegateClient::registerForSecureSettingIntChange(const std::string& key, int defaultValue,
                                                            std::function<void(int)> callback) {
  return keep<IDelegateService>(m_state, __func__, std::move(callback), of_int_setting(key, defaultValue));
}

// ---- Until their end ----

Subscription OrvelDelegateClient::subscribeDeviceNameChange(std::function<void(std::string)> callback) {
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), register_for_name);
}

Subscription OrvelDelegateClient::subscribeDeviceRegistrationChange(std::function<void(bool)> callback) {
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), register_for_account);
}

Subscription OrvelDelegateClient::subscribeMaroConnectivityChange(std::function<void(bool)> callback) {
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback),
                                     of_connectivity(m_state, /*under_lock=*/false));
}

Subscription OrvelDelegateClient::subscribeNetworkConnectivityChange(std::function<void(bool)> callback) {
  return subscribe<IAndroidConnectivityManager>(m_state, __func__, std::move(callback), register_for_network);
}

Subscription OrvelDelegateClient::subscribeScreenStateChange(std::function<void(bool)> callback) {
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), register_for_screen);
}

Subscription OrvelDelegateClient::subscribePackageAction(const std::string& action,
                                                         const std::vector<std::string>& dataTypes,
                                                         const std::vector<std::string>& schemes,
                                                         std::function<void(std::string, std::string)> callback) {
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), of_packages(action, dataTypes, schemes));
}

Subscription OrvelDelegateClient::subscribeTimeSync(std::function<void(long long, long long)> callback) {
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), register_for_time);
}

Subscription OrvelDelegateClient::subscribeSecureSettingIntChange(const std::string& key, int defaultValue,
                                                                  std::function<void(int)> callback) {
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), of_int_setting(key, defaultValue));
}

Subscription OrvelDelegateClient::subscribeBroadcast(const std::string& action,
                                                     const std::vector<std::string>& dataTypes,
                                                     const std::vector<std::string>& schemes,
                                                     std::function<void(const OrvelIntent&)> callback) {
  const auto make = [&](IDelegateService& delegate, const auto& shared, const Ends& ends) {
    return delegate.registerForBroadcast({action, dataTypes, schemes, {}, shared}, ends);
  };
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), make);
}

Subscription OrvelDelegateClient::subscribeSecureSetting(const std::string& key,
                                                         std::function<void(std::optional<std::string>)> callback) {
  const auto make = [&](IDelegateService& delegate, const auto& shared, const Ends& ends) {
    return delegate.registerForSecureSettings(key.c_str(), SettingListener(shared), ends);
  };
  return subscribe<IDelegateService>(m_state, __func__, std::move(callback), make);
}

Subscription OrvelDelegateClient::subscribeDirective(const std::string& nspace, DirectiveCallback callback) {
  const auto make = [&](IOrvelSimDirectiveClient& directives, const auto& shared, const Ends& ends) {
    if (directives.is_registered(nspace)) {
      s_client_logger.e("%s:namespace is already registered. nspace=%s", "subscribeDirective", nspace.c_str());
      CallRecord::fail(CallStatus::Code::kInvalidArgument, "this client is subscribed to the namespace already");
      return false;
    }
    return directives.registerForDirective(nspace, DirectiveListener(shared), ends);
  };
  return subscribe<IOrvelSimDirectiveClient>(m_state, __func__, std::move(callback), make);
}

}  // namespace orvel::service_apis
