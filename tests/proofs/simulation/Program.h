// What a run consists of: the calls that were made, and everything that happened, in order.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "support/Services.h"
#include "support/Vesk.h"

namespace orvel::fuzz {

// In the order in which the client makes its connections.
enum Service {
  kDelegate,
  kPower,
  kEvents,
  kDirectives,
  kActivities,
  kMetrics,
  kPackages,
  kConnectivity,
  kServiceCount
};

using test::kServices;
static_assert(kServices.size() == kServiceCount);

// Every public method. The text is the name under which it logs.
// clang-format off
#define ORVEL_METHODS(X) \
  X(initialize) X(shutdown) X(isMaroConnected) X(isNetworkConnected) X(getDeviceName) X(getDeviceSerialNumber) \
  X(getDeviceType) X(getCustomerDirectedID) X(getCountryOfResidence) X(getPreferredMarketPlace) \
  X(getSecureSettingInt) X(isDeviceRegistered) X(isScreenOn) X(acquirePartialWakeLock) X(acquireFullWakeLock) \
  X(registerForDeviceNameChange) X(registerForDeviceRegistrationChange) X(registerForMaroConnectivityChange) \
  X(registerForNetworkConnectivityChange) X(unregisterForNetworkConnectivityChange) \
  X(registerForScreenStateChange) X(registerForPackageAction) X(registerForTimeSync) \
  X(registerForSecureSettingIntChange) X(broadcastIntentWithIntKey) X(broadcastIntent) \
  X(broadcastIntentWithPermission) X(startActivity) X(startForegroundService) X(startService) \
  X(launchApplicationWithPackageName) X(getApplicationInfoMetaDataInt) X(getApplicationInfoMetaDataText) \
  X(getPackageVersionCode) X(getPackageVersionName) X(getRawResourceAsString) X(hasSystemFeature) \
  X(getPackageNamesForUid) X(getBroadcastReceiverPackageNames) X(getInstalledPackageNames) \
  X(getForegroundPackages) X(getAppProcessState) X(sendEvent) X(registerForDirective) X(recordTarselMetricEvent)
// clang-format on

#define ORVEL_ENUMERATOR(name) k_##name,
enum Method { ORVEL_METHODS(ORVEL_ENUMERATOR) kMethodCount };
#undef ORVEL_ENUMERATOR

std::string name_of(Method method);

constexpr int kNoCallback = -1;

// One public call with its arguments; each method takes those that it needs.
struct Call {
  Method method;
  std::array<std::string, 3> texts = {};
  int number = 0;
  long long flags = 0;
  bool null = false;           // a null intent or event
  int callback = kNoCallback;  // an empty one
};

enum class Kind {
  // What the run decided.
  kStart,         // a: service
  kKill,          // a: service
  kRefuse,        // a: service, b: how often
  kHold,          // a: service
  kComplete,      // a: service
  kTakeName,      // text: a name that another process serves from now on
  kBreakRuntime,  // the next look at the runtime fails
  kSend,          // a: the transfer of the endpoint, -1 for the one named text; b: code; bytes; two_way
  kCall,          // a: index of the Call
  kStop,          // another thread begins a shutdown ...
  kStopped,       // ... which has ended
  kDrain,
  kDrained,      // the run loop runs what waits for it
  kReply,        // a: result; bytes
  kAwake,        // the end of a sleep
  kCallbackEnd,  // a: 1 when it throws
  // What the client did.
  kSleep,     // a: seconds
  kError,     // text: the line
  kLine,      // text: a line of another level
  kRequest,   // a: service, b: code, bytes, transfer: of the endpoint in it, -1 for none
  kCallback,  // a: callback, text: arguments
  kReturn,    // text
  kAnswer,    // a: result of a two-way call to an endpoint
};

struct Event {
  Kind kind;
  int a = 0;
  int b = 0;
  std::string text = {};
  test::Bytes bytes = {};
  int transfer = -1;
  bool two_way = false;
};

struct Trace {
  std::vector<Call> calls;
  std::vector<Event> events;
};

std::string describe(const Event& event, const Trace& trace);

// Values as text, for results and the arguments of callbacks.
std::string shown(bool value);
std::string shown(const std::string& text);
std::string shown(const std::vector<std::string>& texts);

}  // namespace orvel::fuzz
