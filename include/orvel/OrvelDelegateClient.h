/// @file
/// The one object through which a native process reaches the device's platform services.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "orvel/Export.h"

namespace orvel::service_apis {

class ClientState;
struct OrvelIntent;
struct TarselMetricEvent;

/// The client of the device's platform services. One per process.
///
///     uninitialised --initialize()--> initialised --shutdown()--> uninitialised, any number of times
///
/// Threads: every method may be called from any thread. The methods run one at a time, under one lock that is held for
/// the remote call too, so a call takes as long as its service does; a service that does not answer fails a call after
/// libvesk's limit (30 s on a workstation). Callbacks run on one thread of the library, the run-loop thread.
///
/// Errors are values: an empty string, false or the caller's default, with an error line in the Android log. A service
/// may die at any moment: calls then fail at once until it is back, and the library binds it again by itself, which
/// keeps the run-loop thread busy for 6 s at least and about 330 s at most. Queries before a successful initialize() and
/// after shutdown() log "Client is not initialized" and fail.
///
/// What a callback captured is destroyed under no lock of the library: its destructor may call every method, shutdown()
/// included. In a child that was forked while the client was initialised every method fails, at once, and shutdown() does
/// nothing.
///
/// The library can be loaded by dlopen() and stays loaded after dlclose(): the client goes on, and a later dlopen() finds
/// it as it is. Whoever wants it to stop calls shutdown().
class ORVEL_API OrvelDelegateClient {
 public:
  /// The process's one client, created at the first call; its destructor, at process exit, shuts it down. Never fails.
  static OrvelDelegateClient& getClient();

  /// Binds the services and starts the run-loop thread; true when the client is initialised on return, at once when it
  /// was before. Blocks until each service is bound, for about 320 s each at most: a service that never appears is given
  /// up and its queries fail. False, with an error line, when there is no device or shutdown() interrupts; it may be
  /// tried again. Throws std::system_error when the thread cannot be created.
  bool initialize();

  /// Stops the run loop, joins its thread and releases the services; afterwards no callback runs. Interrupts every wait
  /// of the library, an initialize() in progress included, so it is prompt. May be called at any time, twice too; called
  /// from a callback it logs an error and does nothing, because the thread that runs the callback cannot wait for
  /// itself.
  void shutdown();

  /// The name that the owner gave to the device; empty on failure.
  std::string getDeviceName();

  /// The device's serial number; empty on failure.
  std::string getDeviceSerialNumber();

  /// The device type identifier; empty on failure.
  std::string getDeviceType();

  /// The directed identifier of the account that owns the device; empty when there is none, when the service knows none,
  /// and on failure.
  std::string getCustomerDirectedID();

  /// The owner's country of residence; empty on failure.
  std::string getCountryOfResidence();

  /// The owner's preferred marketplace; empty on failure.
  std::string getPreferredMarketPlace();

  /// The secure setting `key` as a base 10 number: leading blanks and a sign are accepted, what follows the digits is
  /// ignored. `defaultValue` when the setting is unset or empty, the key is empty, or the call failed. A key ends at its
  /// first NUL. Throws std::invalid_argument for a value that does not begin with a number and std::out_of_range for one
  /// that does not fit in an int; the client remains usable.
  int getSecureSettingInt(const std::string& key, int defaultValue);

  /// True exactly when getCustomerDirectedID() is not empty.
  bool isDeviceRegistered();

  /// Whether the voice assistant is connected: true until a connectivity broadcast says otherwise. Needs no
  /// initialize().
  bool isMaroConnected();

  /// Always false, whatever the network's state: that state is delivered by notification only. Needs no initialize().
  bool isNetworkConnected();

  /// Whether the screen is interactive; false on failure.
  bool isScreenOn();

  /// Keeps the processor awake for 500 ms. False on failure and on a power manager older than interface version 2.
  bool acquirePartialWakeLock();

  /// Wakes the device and its screen; false on failure.
  bool acquireFullWakeLock();

  /// @name Subscriptions
  /// A subscription lasts until shutdown(), and survives the death of its service: it is made again, once, each time that
  /// the service is back. What happens meanwhile is not heard. Subscribing twice is two subscriptions. True when the
  /// service has taken it; one that it did not take is not kept.
  ///
  /// Callbacks run on the run-loop thread, one at a time, in the order in which the services sent their notifications;
  /// what they keep waiting are all others. They may call the client, which takes further subscriptions too, unless it is
  /// said otherwise. What a callback throws, an empty one std::bad_function_call, goes to libvesk: a workstation's says
  /// so on standard error and goes on.
  /// @{

  /// The new name of the device; never an empty one.
  bool registerForDeviceNameChange(std::function<void(std::string)> callback);

  /// Whether an account was added to the device (true) or removed from it. Two registrations, of which each stays when
  /// only the other fails; the result is then false.
  bool registerForDeviceRegistrationChange(std::function<void(bool)> callback);

  /// Whether the voice assistant is connected. The callback runs under the client's lock, so that isMaroConnected()
  /// agrees with it for everybody else: it must not call the client, whose methods fail there with an error line.
  bool registerForMaroConnectivityChange(std::function<void(bool)> callback);

  /// Whether the device has a default network. One subscription for the whole client: after a second, the first cannot
  /// be ended any more, and it is the service's choice whether to go on telling it. Unlike all others, it is not made
  /// again after its service died.
  bool registerForNetworkConnectivityChange(std::function<void(bool)> callback);

  /// Ends that subscription; without one it does nothing and gives true.
  bool unregisterForNetworkConnectivityChange();

  /// Whether the screen was switched on or off. Two registrations, as for the device's registration.
  bool registerForScreenStateChange(std::function<void(bool)> callback);

  /// The action and the package of every broadcast of `action` (android.intent.action.PACKAGE_ADDED and the like) that
  /// has one of the MIME types and URI schemes; broadcasts about packages have the scheme "package" and no type. The
  /// package is what follows "package:" in the broadcast's data, else its extra "packageName", else its data as they
  /// are.
  bool registerForPackageAction(std::string action, std::vector<std::string> dataTypes,
                                std::vector<std::string> schemes,
                                std::function<void(std::string action, std::string package)> callback);

  /// The time of the device's clock before and after it was set, in milliseconds since 1970; 0 for what is not told.
  bool registerForTimeSync(std::function<void(long long old_time, long long new_time)> callback);

  /// The new value of the secure setting `key`, converted as by getSecureSettingInt; `defaultValue` when it was emptied
  /// or removed. A value that is no number throws std::invalid_argument or std::out_of_range on the run-loop thread, and
  /// the callback is not called.
  bool registerForSecureSettingIntChange(const std::string& key, int defaultValue, std::function<void(int)> callback);

  /// @}
  /// @name Intents
  /// True when the service has taken the intent. What became of it is not told: nobody may listen, and an activity may
  /// not be there to be started. The intent is borrowed for the call; null is refused with an error line.
  /// @{

  /// Broadcasts `action` to one component, a package and one of its classes, with one extra. The intent names them as its
  /// component alone, its own package stays empty; without both of them it is for everybody.
  bool broadcastIntentWithIntKey(const std::string& action, const std::string& packageName,
                                 const std::string& className, const std::string& key, int value);

  /// Broadcasts the intent.
  bool broadcastIntent(const OrvelIntent* intent);

  /// Broadcasts the intent; only receivers that hold the permission get it.
  bool broadcastIntentWithPermission(const OrvelIntent* intent, const std::string& permission);

  /// Starts an activity: what the user sees.
  bool startActivity(const OrvelIntent* intent);

  /// Starts a service that stays in the foreground: the user knows of it, and it is not ended for want of memory.
  bool startForegroundService(const OrvelIntent* intent);

  /// Starts a service: what works in the background.
  bool startService(const OrvelIntent* intent);

  /// Starts the main activity of the package. A service that answers to a package without one with an empty intent is
  /// then asked to start that, and says true or false as it likes.
  bool launchApplicationWithPackageName(const std::string& packageName);

  /// @}
  /// @name Packages and processes
  /// `flags` are those of the platform's package manager, passed on as they are. Texts end at their first NUL.
  /// @{

  /// The entry `key` of the application's metadata that has the type of the default; `defaultValue` when there is none,
  /// for a package that is not there, and on failure. The metadata are told only with the flag 0x80 (GET_META_DATA), and
  /// at most the first 30 entries count.
  int getApplicationInfoMetaData(const std::string& packageName, long long flags, const std::string& key,
                                 int defaultValue);
  /// The same for a text.
  std::string getApplicationInfoMetaData(const std::string& packageName, long long flags, const std::string& key,
                                         std::string defaultValue);

  /// The version of a package as a decimal number; empty for a package that is not there and on failure.
  std::string getPackageVersionCode(const std::string& packageName, long long flags);
  /// The version of a package as people read it; empty for a package that is not there and on failure.
  std::string getPackageVersionName(const std::string& packageName, long long flags);

  /// The raw resource as text; empty when there is none and on failure.
  std::string getRawResourceAsString(const std::string& packageName, int resourceId);

  /// Whether the device has the feature ("android.hardware.wifi"); false on failure.
  bool hasSystemFeature(const std::string& feature);

  /// The packages that share the user id; empty on failure.
  std::vector<std::string> getPackageNamesForUid(int uid);

  /// The package of each receiver that a broadcast of the action would reach, in the service's order; a package with two
  /// receivers stands there twice. Empty on failure.
  std::vector<std::string> getBroadcastReceiverPackageNames(const std::string& action, long long flags);

  /// Replaces the list by the names of the installed packages, at most 1,000. False, and an empty list, only while the
  /// client is not initialised or the service is not bound. True in every other case: with an empty list after a call that
  /// failed, for whatever reason (an exception, a time limit, a service that died and whose death is not noticed yet), and
  /// with the announced number of names, the missing ones empty, after a reply that was cut short.
  bool getInstalledPackageNames(std::vector<std::string>& packageNames);

  /// Replaces the list by the packages of all processes in the foreground, each once, in the order of their bytes. False,
  /// and an empty list, on failure.
  bool getForegroundPackages(std::vector<std::string>& packageNames);

  /// How the first running process that has the package stands: the platform's importance, of which 100 is the foreground
  /// and more is less, and whether it has the focus. Without such a process `found` and `isFocused` are false and
  /// `importance` is -1. False, and all three as they were, on failure.
  bool getAppProcessState(const std::string& packageName, bool& found, int& importance, bool& isFocused);

  /// @}
  /// @name The voice assistant and metrics
  /// @{

  /// The name of what became of an event, one of SUCCESS, SUCCESS_NO_CONTENT, MARO_DISCONNECTED (the assistant is not
  /// connected), INTERNAL_ERROR, TIMEOUT, INVALID_EVENT and UNKNOWN_ERROR, and whether the event may be sent again.
  using EventResultCallback = std::function<void(std::string result, bool retryable)>;

  /// The texts of a directive; valid during the call only.
  using DirectiveCallback =
      std::function<void(const std::string& directive1, const std::string& directive2, const std::string& directive3,
                         const std::string& directive4, const std::string& directive5, const std::string& directive6,
                         const std::string& directive7)>;

  /// Sends the assistant an event of a namespace and a name; what the other texts, the flag and the payload mean is
  /// between caller and assistant. Whether the assistant has accepted it; false when it has not and on failure. The
  /// result comes by `callback`, on the run-loop thread as with subscriptions, possibly before this returns: once as a
  /// rule, never when the service dies first or the event was not sent, and as often as the service tells it.
  bool sendEvent(const std::string& nspace, const std::string& name, const std::string& event3,
                 const std::string& event4, const std::string& event5, const std::string& event6,
                 const std::string& event7, bool flag, std::string payload, EventResultCallback callback);

  /// Subscribes to the assistant's directives of a namespace, which one process of the device can have at a time: false
  /// when another has it, for a namespace that is empty or holds a NUL, and on failure. Of two subscriptions of this
  /// client to the same namespace the first stays alone; the second gives true, with an error line, and its callback is
  /// dropped. What is said of subscriptions above holds for the rest.
  bool registerForDirective(const std::string& nspace, DirectiveCallback callback);

  /// Records an event. Nothing tells whether the metrics service took it; one that holds an unset value is not sent. The
  /// event is borrowed for the call; null is refused with an error line.
  void recordTarselMetricEvent(const TarselMetricEvent* event);

  /// @}

  OrvelDelegateClient(const OrvelDelegateClient&) = delete;
  OrvelDelegateClient& operator=(const OrvelDelegateClient&) = delete;

 private:
  OrvelDelegateClient();
  ~OrvelDelegateClient();

  ClientState& m_state;
};

}  // namespace orvel::service_apis
