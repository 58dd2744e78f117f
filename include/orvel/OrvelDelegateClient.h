// The one object through which a native process reaches the device's platform services.
#pragma once

#include <string>

// Marks what the shared library exports.
#define ORVEL_API __attribute__((visibility("default")))

namespace orvel::service_apis {

class ClientState;

// The client of the device's platform services. One per process.
//
//   uninitialised --initialize()--> initialised --shutdown()--> uninitialised, any number of times
//
// Threads: every method may be called from any thread. The methods run one at a time, under one lock that is held for
// the remote call too, so a call takes as long as its service does; a service that does not answer fails a call after
// libvesk's limit (30 s on a workstation). Callbacks run on one thread of the library, the run-loop thread.
//
// Errors are values: an empty string, false or the caller's default, with an error line in the Android log. A service
// may die at any moment: calls then fail at once until it is back, and the library binds it again by itself, which
// keeps the run-loop thread busy for 6 s at least and about 306 s at most. Queries before a successful initialize() and
// after shutdown() log "Client is not initialized" and fail.
class ORVEL_API OrvelDelegateClient {
 public:
  // The process's one client, created at the first call; its destructor, at process exit, shuts it down. Never fails.
  static OrvelDelegateClient& getClient();

  // Binds the services and starts the run-loop thread; true when the client is initialised on return, at once when it
  // was before. Blocks until each service is bound, for about 300 s each at most: a service that never appears is given
  // up and its queries fail. False, with an error line, when there is no device or shutdown() interrupts; it may be
  // tried again. Throws std::system_error when the thread cannot be created.
  bool initialize();

  // Stops the run loop, joins its thread and releases the services; afterwards no callback runs. Interrupts every wait
  // of the library, an initialize() in progress included, so it is prompt. May be called at any time, twice too; called
  // from a callback it logs an error and does nothing, because the thread that runs the callback cannot wait for
  // itself.
  void shutdown();

  // The name that the owner gave to the device; empty on failure.
  std::string getDeviceName();

  // The device's serial number; empty on failure.
  std::string getDeviceSerialNumber();

  // The device type identifier; empty on failure.
  std::string getDeviceType();

  // The directed identifier of the account that owns the device; empty when there is none, when the service knows none,
  // and on failure.
  std::string getCustomerDirectedID();

  // The owner's country of residence; empty on failure.
  std::string getCountryOfResidence();

  // The owner's preferred marketplace; empty on failure.
  std::string getPreferredMarketPlace();

  // The secure setting `key` as a base 10 number: leading blanks and a sign are accepted, what follows the digits is
  // ignored. `defaultValue` when the setting is unset or empty, the key is empty, or the call failed. A key ends at its
  // first NUL. Throws std::invalid_argument for a value that does not begin with a number and std::out_of_range for one
  // that does not fit in an int; the client remains usable.
  int getSecureSettingInt(const std::string& key, int defaultValue);

  // True exactly when getCustomerDirectedID() is not empty.
  bool isDeviceRegistered();

  // Whether the voice assistant is connected: true until a connectivity broadcast says otherwise. Needs no
  // initialize().
  bool isMaroConnected();

  // Always false, whatever the network's state: that state is delivered by notification only. Needs no initialize().
  bool isNetworkConnected();

  // Whether the screen is interactive; false on failure.
  bool isScreenOn();

  // Keeps the processor awake for 500 ms. False on failure and on a power manager older than interface version 2.
  bool acquirePartialWakeLock();

  // Wakes the device and its screen; false on failure.
  bool acquireFullWakeLock();

  OrvelDelegateClient(const OrvelDelegateClient&) = delete;
  OrvelDelegateClient& operator=(const OrvelDelegateClient&) = delete;

 private:
  OrvelDelegateClient();
  ~OrvelDelegateClient();

  ClientState& m_state;
};

}  // namespace orvel::service_apis
