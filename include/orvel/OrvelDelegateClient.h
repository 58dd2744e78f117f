/// @file
/// The one object through which a native process reaches the device's platform services.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "orvel/AssistantEvent.h"
#include "orvel/CallStatus.h"
#include "orvel/Executor.h"
#include "orvel/Export.h"
#include "orvel/Links.h"
#include "orvel/StartOptions.h"
#include "orvel/Subscription.h"
#include "orvel/Version.h"

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
/// keeps the run-loop thread busy for 6 s at least and about 330 s at most. Queries before a successful initialize()
/// and after shutdown() log "Client is not initialized" and fail.
///
/// What a callback captured is destroyed under no lock of the library: its destructor may call every method,
/// shutdown() included. In a child that was forked while the client was initialised every method fails at once, and
/// shutdown() does nothing.
///
/// The library can be loaded by dlopen() and stays loaded after dlclose(): the client goes on, and a later dlopen()
/// finds it as it is. To stop it, call shutdown().
class ORVEL_API OrvelDelegateClient {
 public:
  /// Returns the process's one client, which the first call creates. Never fails. The client's destructor, at process
  /// exit, shuts it down.
  static OrvelDelegateClient& getClient();

  /// True when the client is initialised on return, at once when it was before; false, with an error line, when there
  /// is no device or shutdown() interrupts, after which it may be tried again. Binds the services and starts the
  /// run-loop thread. Blocks until each service is bound, for about 320 s each at most: a service that never appears is
  /// given up and its queries fail. Throws std::system_error when the thread cannot be created.
  bool initialize();

  /// Stops the run loop, joins its thread and releases the services; afterwards no callback runs. Interrupts every wait
  /// of the library, an initialize() in progress included, so it is prompt. May be called at any time, twice too.
  /// Called from a callback it logs an error and does nothing, because the thread that runs the callback cannot wait
  /// for itself.
  void shutdown();

  /// The name that the owner gave to the device; empty on failure.
  std::string getDeviceName();

  /// The device's serial number; empty on failure.
  std::string getDeviceSerialNumber();

  /// The device type identifier; empty on failure.
  std::string getDeviceType();

  /// The directed identifier of the account that owns the device; empty when no account does, when the service does not
  /// know it, and on failure.
  std::string getCustomerDirectedID();

  /// The owner's country of residence; empty on failure.
  std::string getCountryOfResidence();

  /// The owner's preferred marketplace; empty on failure.
  std::string getPreferredMarketPlace();

  /// The secure setting `key` as a base 10 number; `defaultValue` when the setting is unset or empty, the key is empty,
  /// or the call failed. Leading blanks and a sign are accepted, what follows the digits is ignored. A key ends at its
  /// first NUL. Throws std::invalid_argument for a value that does not begin with a number and std::out_of_range for
  /// one that does not fit in an int; the client remains usable.
  int getSecureSettingInt(const std::string& key, int defaultValue);

  /// True exactly when getCustomerDirectedID() is not empty.
  bool isDeviceRegistered();

  /// True while the voice assistant is connected, and until a connectivity broadcast says otherwise. Needs no
  /// initialize().
  bool isMaroConnected();

  /// Always false: the state of the network is delivered by notification only. Needs no initialize().
  bool isNetworkConnected();

  /// True when the screen is interactive; false when it is not and on failure.
  bool isScreenOn();

  /// True when the processor is kept awake, for 500 ms; false on failure and on a power manager older than interface
  /// version 2.
  bool acquirePartialWakeLock();

  /// True when the power manager was asked to wake the device and its screen; false on failure.
  bool acquireFullWakeLock();

  /// @name Subscriptions
  /// Each method returns true when the service has taken the subscription; one that it did not take is not kept. A
  /// subscription lasts until shutdown(), and survives the death of its service: the library makes it again, once, each
  /// time that the service is back. What the service tells meanwhile is lost. Subscribing twice makes two
  /// subscriptions.
  ///
  /// Callbacks run on the run-loop thread, one at a time, in the order in which the services sent their notifications;
  /// while one runs, all other notifications wait. They may call the client and may subscribe again, except where
  /// noted. A subscription has one copy of its callback, whose state survives the death of the service too. What a
  /// callback throws, an empty one std::bad_function_call, goes to libvesk: a workstation's says so on standard error
  /// and goes on.
  /// @{

  /// Tells the new name of the device, which is never empty.
  bool registerForDeviceNameChange(std::function<void(std::string)> callback);

  /// Tells true when an account was added to the device and false when one was removed. Makes two subscriptions, of
  /// which each stays when only the other fails; the result is then false.
  bool registerForDeviceRegistrationChange(std::function<void(bool)> callback);

  /// Tells whether the voice assistant is connected. The callback runs under the client's lock, so that
  /// isMaroConnected() agrees with it on every other thread: it must not call the client, whose methods fail there with
  /// an error line.
  bool registerForMaroConnectivityChange(std::function<void(bool)> callback);

  /// Tells whether the device has a default network. The client has one such subscription: after a second, the first
  /// cannot be ended any more, and the service decides whether it goes on telling it. Unlike all others, it is not made
  /// again after its service died. Its request and its reply, about half a kilobyte, are kept until the process ends:
  /// call this again when the link to the service says `network_lost`, and not because it has been silent for long.
  bool registerForNetworkConnectivityChange(std::function<void(bool)> callback);

  /// True when that subscription is ended, and when there is none; false when the service is not bound.
  bool unregisterForNetworkConnectivityChange();

  /// Tells whether the screen was switched on (true) or off. Makes two subscriptions, as for the device's registration.
  bool registerForScreenStateChange(std::function<void(bool)> callback);

  /// Tells the action and the package of every broadcast of `action` (android.intent.action.PACKAGE_ADDED and the like)
  /// that has one of the MIME types and URI schemes; broadcasts about packages have the scheme "package" and no type.
  /// The package is what follows "package:" in the broadcast's data, else its extra "packageName", else its data as
  /// they are.
  bool registerForPackageAction(std::string action, std::vector<std::string> dataTypes,
                                std::vector<std::string> schemes,
                                std::function<void(std::string action, std::string package)> callback);

  /// Tells the time of the device's clock before and after it was set, in milliseconds since 1970; 0 if the device did
  /// not give it.
  bool registerForTimeSync(std::function<void(long long old_time, long long new_time)> callback);

  /// Tells the new value of the secure setting `key`, converted as by getSecureSettingInt; `defaultValue` when it was
  /// emptied or removed. A value that is not a number throws std::invalid_argument or std::out_of_range on the run-loop
  /// thread, and the callback is not called.
  bool registerForSecureSettingIntChange(const std::string& key, int defaultValue, std::function<void(int)> callback);

  /// @}
  /// @name Intents
  /// Each method returns true when the service has taken the intent; false on failure, and for a null intent, with an
  /// error line. The service does not say what became of the intent: a broadcast may have no receiver, and the activity
  /// that it names may not exist. The intent is borrowed for the call.
  /// @{

  /// Broadcasts `action` to one component, a package and one of its classes, with one extra. The intent names them as
  /// its component, and its own package stays empty; unless both are given, every receiver of the action gets it.
  bool broadcastIntentWithIntKey(const std::string& action, const std::string& packageName,
                                 const std::string& className, const std::string& key, int value);

  /// Broadcasts the intent.
  bool broadcastIntent(const OrvelIntent* intent);

  /// Broadcasts the intent; only receivers that hold the permission get it.
  bool broadcastIntentWithPermission(const OrvelIntent* intent, const std::string& permission);

  /// Starts an activity: what the user sees.
  bool startActivity(const OrvelIntent* intent);

  /// Starts a service that stays in the foreground: the user knows of it, and the system does not end it for want of
  /// memory.
  bool startForegroundService(const OrvelIntent* intent);

  /// Starts a service, which works in the background.
  bool startService(const OrvelIntent* intent);

  /// Starts the main activity of the package. When the service answers to a package without one with an empty intent,
  /// the client asks it to start that, and returns what it says.
  bool launchApplicationWithPackageName(const std::string& packageName);

  /// @}
  /// @name Packages and processes
  /// `flags` are those of the platform's package manager, passed on as they are. Texts end at their first NUL.
  /// @{

  /// The entry `key` of the application's metadata that has the type of the default; `defaultValue` when there is none,
  /// for a package that is not installed, and on failure. The reply has metadata only if `flags` contains 0x80
  /// (GET_META_DATA), and at most the first 30 entries count.
  int getApplicationInfoMetaData(const std::string& packageName, long long flags, const std::string& key,
                                 int defaultValue);
  /// The same for a text.
  std::string getApplicationInfoMetaData(const std::string& packageName, long long flags, const std::string& key,
                                         std::string defaultValue);

  /// The version of a package as a decimal number; empty for a package that is not installed and on failure.
  std::string getPackageVersionCode(const std::string& packageName, long long flags);
  /// The version of a package as people read it; empty for a package that is not installed and on failure.
  std::string getPackageVersionName(const std::string& packageName, long long flags);

  /// The raw resource as text; empty when there is none and on failure.
  std::string getRawResourceAsString(const std::string& packageName, int resourceId);

  /// True when the device has the feature ("android.hardware.wifi"); false when it has not and on failure.
  bool hasSystemFeature(const std::string& feature);

  /// The packages that share the user id; empty on failure.
  std::vector<std::string> getPackageNamesForUid(int uid);

  /// The package of each receiver that a broadcast of the action would reach, in the service's order; empty on failure.
  /// A package with two receivers stands there twice.
  std::vector<std::string> getBroadcastReceiverPackageNames(const std::string& action, long long flags);

  /// False, and an empty list, only while the client is not initialised or the service is not bound; true in every
  /// other case. Replaces the list by the names of the installed packages, at most 1,000. After a call that failed (by
  /// an exception, by the time limit, or because the service died and its death is not noticed yet) the list is empty.
  /// After a reply that was cut short it has the announced number of names, and the missing ones are empty.
  bool getInstalledPackageNames(std::vector<std::string>& packageNames);

  /// True when the list was replaced by the packages of all processes in the foreground, each once, in the order of
  /// their bytes. False, and an empty list, on failure.
  bool getForegroundPackages(std::vector<std::string>& packageNames);

  /// True when the service has answered; false, and all three results as they were, on failure. `found` says whether a
  /// running process has the package; if so, `importance` is the platform's importance of the first one, of which 100
  /// is the foreground and larger numbers matter less, and `isFocused` says whether it has the focus. Otherwise
  /// `isFocused` is false and `importance` is -1.
  bool getAppProcessState(const std::string& packageName, bool& found, int& importance, bool& isFocused);

  /// @}
  /// @name The voice assistant and metrics
  /// @{

  /// Gets the name of what became of an event, one of SUCCESS, SUCCESS_NO_CONTENT, MARO_DISCONNECTED (the assistant is
  /// not connected), INTERNAL_ERROR, TIMEOUT, INVALID_EVENT and UNKNOWN_ERROR, and whether the event may be sent again.
  using EventResultCallback = std::function<void(std::string result, bool retryable)>;

  /// Gets the texts of a directive, which are valid during the call only.
  using DirectiveCallback =
      std::function<void(const std::string& directive1, const std::string& directive2, const std::string& directive3,
                         const std::string& directive4, const std::string& directive5, const std::string& directive6,
                         const std::string& directive7)>;

  /// True if the assistant accepted the event; false if it refused or the call failed. Sends an event of a namespace
  /// and a name; caller and assistant agree on the meaning of the other texts, the flag and the payload. The result
  /// comes by `callback`, on the run-loop thread as with subscriptions, possibly before this returns: once as a rule,
  /// never when the service dies first or the event was not sent, and as often as the service tells it.
  bool sendEvent(const std::string& nspace, const std::string& name, const std::string& event3,
                 const std::string& event4, const std::string& event5, const std::string& event6,
                 const std::string& event7, bool flag, std::string payload, EventResultCallback callback);

  /// True when the client is subscribed to the assistant's directives of the namespace. False when another process has
  /// the namespace, which one process of the device can have at a time, for a namespace that is empty or holds a NUL,
  /// and on failure. A second subscription to the same namespace returns true, with an error line; the first stays, and
  /// the second callback is dropped. In all else it is like the subscriptions above.
  bool registerForDirective(const std::string& nspace, DirectiveCallback callback);

  /// Records an event. The metrics service does not say whether it took it. An event that holds an unset value is not
  /// sent; null is refused with an error line. The event is borrowed for the call.
  void recordTarselMetricEvent(const TarselMetricEvent* event);

  /// @}
  /// @name Starting with what one needs (1.1)
  /// @{

  /// True when the required services are up; false, with the reason in lastCall(), when there is no device, when the
  /// deadline has passed, when one of them was given up, and when shutdown() interrupts. Starts the run-loop thread,
  /// and looks for all services at once, each on a thread of its own. Without a device nothing is started. Otherwise
  /// the client is initialised from now on, also when this returns false: the services that are not up yet go on being
  /// looked for, for as long as in initialize(); subscribeLink() tells when they are up, and calls of them fail at once
  /// until then. On a client that is initialised it only waits. With `wait` and no required service it does nothing,
  /// and is false. In a callback it does not wait.
  bool start(const StartOptions& options);

  /// @}
  /// @name Links (1.1)
  /// @{

  /// How the client stands with the service now. Waits for nothing. Any time, in every callback.
  Link state(Service service) const;

  /// Tells how the client stands with the service each time that it has changed, and at first how it stands now. Lasts
  /// over shutdown() and initialize(). States may be merged when they follow each other fast; the last one is always
  /// told. After a death, the link is up when the subscriptions were made again, and is told before the first
  /// notification of the new epoch.
  ///
  /// The callback runs first in this call, on the calling thread; then on a thread of the library: on the run-loop
  /// thread after a death, on that of start() or rebind() which has found the service; and for a stop on the thread
  /// that calls shutdown(). For one subscription, one at a time. It may call the client, shutdown() excepted. With an
  /// executor it runs there. What it throws is logged. Never fails, but for an empty callback.
  [[nodiscard]] Subscription subscribeLink(Service service, LinkCallback callback);
  /// The same for all services: at first one snapshot of each.
  [[nodiscard]] Subscription subscribeLink(LinkCallback callback);

  /// True as soon as the link is in that state; false when the limit has passed, and when shutdown() interrupts. Where
  /// it cannot come about while this waits, inside a callback, it does not wait.
  [[nodiscard]] bool waitFor(Service service, LinkState state, std::chrono::nanoseconds limit) const;

  /// Looks again for a service that was given up, on a thread of its own, for as long as initialize() does;
  /// its subscriptions are made again then. True, too, for a service that is up or looked for already; false when the
  /// client is not initialised.
  bool rebind(Service service);

  /// @}
  /// @name Subscriptions that end (1.1)
  /// Each does what the registerFor method of its name does, and returns the subscription; an empty one where that
  /// returns false. A callback that is empty gives an empty one, too. subscribeDeviceRegistrationChange() and
  /// subscribeScreenStateChange() are made whole or not at all.
  /// @{

  /// The new name of the device.
  [[nodiscard]] Subscription subscribeDeviceNameChange(std::function<void(std::string)> callback);
  /// Whether an account was added to the device or removed.
  [[nodiscard]] Subscription subscribeDeviceRegistrationChange(std::function<void(bool)> callback);
  /// Whether the voice assistant is connected. Unlike the registered callback this one runs under no lock, and may call
  /// the client; isMaroConnected() has the new value by then.
  [[nodiscard]] Subscription subscribeMaroConnectivityChange(std::function<void(bool)> callback);
  /// Whether the device has a default network. Is not made again after its service died, either: the link then says
  /// `network_lost`.
  [[nodiscard]] Subscription subscribeNetworkConnectivityChange(std::function<void(bool)> callback);
  /// Whether the screen was switched on or off.
  [[nodiscard]] Subscription subscribeScreenStateChange(std::function<void(bool)> callback);
  /// The action and the package of broadcasts about packages.
  [[nodiscard]] Subscription subscribePackageAction(
      const std::string& action, const std::vector<std::string>& dataTypes, const std::vector<std::string>& schemes,
      std::function<void(std::string action, std::string package)> callback);
  /// The time before and after the clock was set.
  [[nodiscard]] Subscription subscribeTimeSync(std::function<void(long long old_time, long long new_time)> callback);
  /// The new value of a secure setting that is a number.
  [[nodiscard]] Subscription subscribeSecureSettingIntChange(const std::string& key, int defaultValue,
                                                             std::function<void(int)> callback);
  /// The directives of a namespace. When the subscription has ended, the client may subscribe to the namespace again;
  /// other processes may not as long as this one lives and is not shut down.
  [[nodiscard]] Subscription subscribeDirective(const std::string& nspace, DirectiveCallback callback);

  /// @}
  /// @name What could not be heard or read before (1.1)
  /// @{

  /// Tells every broadcast of `action` that has one of the MIME types and one of the URI schemes, whole, as it arrived:
  /// without categories and flags, which are not sent along. Two empty lists are for broadcasts without data.
  [[nodiscard]] Subscription subscribeBroadcast(const std::string& action, const std::vector<std::string>& dataTypes,
                                                const std::vector<std::string>& schemes,
                                                std::function<void(const OrvelIntent&)> callback);

  /// The secure setting `key` as it is; nothing when it is unset or empty, which the device does not tell apart
  /// everywhere, and on failure. Never throws for what the setting holds.
  std::optional<std::string> getSecureSetting(const std::string& key);

  /// Tells the new value of the secure setting `key` as it is; nothing when it was emptied or removed.
  [[nodiscard]] Subscription subscribeSecureSetting(const std::string& key,
                                                    std::function<void(std::optional<std::string>)> callback);

  /// True if the assistant accepted the event; then `callback` gets its outcome, exactly once, on the run-loop thread
  /// as a rule and possibly before this returns: "LOST" after the service's death and at shutdown(), on the thread that
  /// calls it; "TIMEOUT" after the event's deadline, on a thread of the library. False if the assistant refused or the
  /// call failed; then the callback is not called. At exit no outcome is told.
  bool send(const AssistantEvent& event, EventOutcomeCallback callback);

  /// @}
  /// @name Loops of one's own (1.1)
  /// @{

  /// From now on callbacks are handed to `executor`, on the threads that would have run them, and run where that runs
  /// them; an empty one puts them back. For CallbackQueue and for loops that take functions. A callback of
  /// registerForMaroConnectivityChange() runs under no lock then. shutdown() waits for callbacks that run, and what
  /// still waits then is dropped, but for links and outcomes of events. Set it before you subscribe: what is on its way
  /// already may arrive out of order.
  void setExecutor(Executor executor);

  /// @}

  OrvelDelegateClient(const OrvelDelegateClient&) = delete;
  OrvelDelegateClient& operator=(const OrvelDelegateClient&) = delete;

 private:
  OrvelDelegateClient();
  ~OrvelDelegateClient();

  ClientState& m_state;
};

}  // namespace orvel::service_apis
