// Function objects that turn a raw notification into the one value that a caller of the client asked for. The copies of
// a listener share the caller's callback. Run-loop thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "binder/Callback.h"
#include "orvel/AssistantEvent.h"
#include "orvel/Bundle.h"
#include "orvel/OrvelDelegateClient.h"
#include "parcel/OrvelSimDirective.h"
#include "parcel/OrvelSimEventResult.h"

namespace orvel::service_apis {

class ClientState;

// ---- Broadcasts: action, data, extras ----

class DeviceNameListener {
 public:
  explicit DeviceNameListener(SharedCallback<std::function<void(std::string)>> callback)
      : m_callback(std::move(callback)) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  SharedCallback<std::function<void(std::string)>> m_callback;
};

// For a broadcast whose action alone tells the new state.
class StateListener {
 public:
  StateListener(bool state, StateCallback callback) : m_state(state), m_callback(std::move(callback)) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  bool m_state;
  StateCallback m_callback;
};

// Tells the client, too, which must outlive it; calls back under the facade lock if told to.
class MaroConnectivityListener {
 public:
  MaroConnectivityListener(ClientState& client, StateCallback callback, bool under_lock)
      : m_client(&client), m_callback(std::move(callback)), m_under_lock(under_lock) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  ClientState* m_client;
  StateCallback m_callback;
  bool m_under_lock;
};

// Calls back once for every broadcast, even for one that names no package.
class PackageListener {
 public:
  explicit PackageListener(SharedCallback<std::function<void(std::string, std::string)>> callback)
      : m_callback(std::move(callback)) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  SharedCallback<std::function<void(std::string, std::string)>> m_callback;
};

class TimeSyncListener {
 public:
  explicit TimeSyncListener(SharedCallback<std::function<void(long long, long long)>> callback)
      : m_callback(std::move(callback)) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  SharedCallback<std::function<void(long long, long long)>> m_callback;
};

// ---- Secure settings: key, value ----

// Throws what setting_to_int throws.
class SettingIntListener {
 public:
  SettingIntListener(int default_value, SharedCallback<std::function<void(int)>> callback)
      : m_default(default_value), m_callback(std::move(callback)) {}
  void operator()(const std::string& key, const std::string& value) const;

 private:
  int m_default;
  SharedCallback<std::function<void(int)>> m_callback;
};

// Tells nothing for an empty value, which a setting has that was removed.
class SettingListener {
 public:
  using Function = std::function<void(std::optional<std::string>)>;

  explicit SettingListener(SharedCallback<Function> callback) : m_callback(std::move(callback)) {}
  void operator()(const std::string& key, const std::string& value) const;

 private:
  SharedCallback<Function> m_callback;
};

// ---- The voice assistant ----

// Returns the name of an event's result, and whether the event may be sent again. Logs it.
EventOutcome outcome_of(OrvelSimEventResult_t result);

class EventResultListener {
 public:
  explicit EventResultListener(OrvelDelegateClient::EventResultCallback callback)
      : m_callback(std::move(callback), "sendEvent") {}
  void operator()(OrvelSimEventResult_t result) const;

 private:
  SharedCallback<OrvelDelegateClient::EventResultCallback> m_callback;
};

class DirectiveListener {
 public:
  explicit DirectiveListener(SharedCallback<OrvelDelegateClient::DirectiveCallback> callback)
      : m_callback(std::move(callback)) {}
  void operator()(const OrvelSimDirective& directive) const;

 private:
  SharedCallback<OrvelDelegateClient::DirectiveCallback> m_callback;
};

// ---- Data of a broadcast ----

// Returns what the regular expression "package:(.*)" finds, the text behind the first "package:" up to a line break;
// empty when it finds nothing. Written by hand, because the standard library's matching recurses for every character
// and would run out of stack on a long text.
std::optional<std::string> find_package(const std::string& data);

}  // namespace orvel::service_apis
