// Function objects that turn a raw notification into the one value that a caller of the client asked for. The copies of
// a listener share the caller's callback and call it on the run-loop thread; an empty one throws std::bad_function_call
// there.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "client/SharedCallback.h"
#include "orvel/Bundle.h"
#include "orvel/OrvelDelegateClient.h"
#include "parcel/OrvelSimDirective.h"
#include "parcel/OrvelSimEventResult.h"

namespace orvel::service_apis {

class ClientState;

// ---- Broadcasts: action, data, extras ----

class DeviceNameListener {
 public:
  explicit DeviceNameListener(std::function<void(std::string)> callback) : m_callback(std::move(callback)) {}
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

// Calls back under the facade lock. The client must outlive it.
class MaroConnectivityListener {
 public:
  MaroConnectivityListener(ClientState& client, std::function<void(bool)> callback)
      : m_client(&client), m_callback(std::move(callback)) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  ClientState* m_client;
  StateCallback m_callback;
};

// Calls back once for every broadcast, even for one that names no package.
class PackageListener {
 public:
  explicit PackageListener(std::function<void(std::string, std::string)> callback) : m_callback(std::move(callback)) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  SharedCallback<std::function<void(std::string, std::string)>> m_callback;
};

class TimeSyncListener {
 public:
  explicit TimeSyncListener(std::function<void(long long, long long)> callback) : m_callback(std::move(callback)) {}
  void operator()(const std::string& action, const std::string& data, const Bundle& extras) const;

 private:
  SharedCallback<std::function<void(long long, long long)>> m_callback;
};

// ---- Secure settings: key, value ----

// Throws what setting_to_int throws.
class SettingIntListener {
 public:
  SettingIntListener(int default_value, std::function<void(int)> callback)
      : m_default(default_value), m_callback(std::move(callback)) {}
  void operator()(const std::string& key, const std::string& value) const;

 private:
  int m_default;
  SharedCallback<std::function<void(int)>> m_callback;
};

// ---- The voice assistant ----

// Tells the name of an event's result, and whether the event may be sent again.
class EventResultListener {
 public:
  explicit EventResultListener(OrvelDelegateClient::EventResultCallback callback) : m_callback(std::move(callback)) {}
  void operator()(OrvelSimEventResult_t result) const;

 private:
  SharedCallback<OrvelDelegateClient::EventResultCallback> m_callback;
};

class DirectiveListener {
 public:
  explicit DirectiveListener(OrvelDelegateClient::DirectiveCallback callback) : m_callback(std::move(callback)) {}
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
