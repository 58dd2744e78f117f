#include "races/Operations.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "orvel/OrvelIntent.h"
#include "orvel/TarselMetricEvent.h"
#include "races/Watchdog.h"

namespace orvel::races {
namespace {

using service_apis::OrvelIntent;
using service_apis::TarselMetricEvent;

std::atomic<long> g_heard{0};
std::atomic<std::uint64_t> g_callback_seed{1};
thread_local int t_depth = 0;  // of callbacks

std::string text(Random& random) {
  static const char* const kTexts[] = {"", "a", "com.example.app", "android.intent.action.SCREEN_ON", "N1", "N2", "N3"};
  return kTexts[random() % std::size(kTexts)];
}

OrvelIntent intent(Random& random) {
  OrvelIntent made;
  made.action = text(random);
  made.package = text(random);
  made.extras.put(text(random), 7);
  made.categories = {text(random)};
  return made;
}

// Inside every callback: half of the time another operation, as callers do.
void called_back() {
  ++g_heard;
  if (t_depth > 0) return;
  ++t_depth;
  Random random(g_callback_seed++);
  if (random() % 2 == 0) run_one(Client::getClient(), random);
  --t_depth;
}

const auto hear = [](auto&&...) { called_back(); };

}  // namespace

const std::vector<Operation>& operations() {
  // Never destroyed: threads may run while the process ends.
  static const auto& all = *new std::vector<Operation>{
      // First: run_one() knows its place.
      {"shutdown",
       [](Client& c, Random& r) {
         c.shutdown();
         if (r() % 8 != 0) c.initialize();
       }},
      {"initialize", [](Client& c, Random&) { c.initialize(); }},
      {"getDeviceName",
       [](Client& c, Random&) {
         const std::string name = c.getDeviceName();
         require(name.empty() || name == "a name", "the name is the device's or empty");
       }},
      {"getDeviceSerialNumber", [](Client& c, Random&) { c.getDeviceSerialNumber(); }},
      {"getDeviceType", [](Client& c, Random&) { c.getDeviceType(); }},
      {"getCustomerDirectedID", [](Client& c, Random&) { c.getCustomerDirectedID(); }},
      {"getCountryOfResidence", [](Client& c, Random&) { c.getCountryOfResidence(); }},
      {"getPreferredMarketPlace", [](Client& c, Random&) { c.getPreferredMarketPlace(); }},
      {"getSecureSettingInt",
       [](Client& c, Random& r) {
         try {
           c.getSecureSettingInt(text(r), 5);
         } catch (const std::invalid_argument&) {
           // What the value is, here the name, is no number.
         }
       }},
      {"isDeviceRegistered", [](Client& c, Random&) { c.isDeviceRegistered(); }},
      {"isMaroConnected", [](Client& c, Random&) { c.isMaroConnected(); }},
      {"isNetworkConnected", [](Client& c, Random&) { require(!c.isNetworkConnected(), "no network is ever told"); }},
      {"isScreenOn", [](Client& c, Random&) { c.isScreenOn(); }},
      {"acquirePartialWakeLock", [](Client& c, Random&) { c.acquirePartialWakeLock(); }},
      {"acquireFullWakeLock", [](Client& c, Random&) { c.acquireFullWakeLock(); }},
      {"registerForDeviceNameChange", [](Client& c, Random&) { c.registerForDeviceNameChange(hear); }},
      {"registerForDeviceRegistrationChange", [](Client& c, Random&) { c.registerForDeviceRegistrationChange(hear); }},
      {"registerForMaroConnectivityChange",
       [](Client& c, Random&) {
         c.registerForMaroConnectivityChange([&c](bool) {
           ++g_heard;
           require(c.getDeviceName().empty() && !c.initialize(), "inside the connectivity callback all is refused");
         });
       }},
      {"registerForNetworkConnectivityChange",
       [](Client& c, Random&) { c.registerForNetworkConnectivityChange(hear); }},
      {"unregisterForNetworkConnectivityChange",
       [](Client& c, Random&) { c.unregisterForNetworkConnectivityChange(); }},
      {"registerForScreenStateChange", [](Client& c, Random&) { c.registerForScreenStateChange(hear); }},
      {"registerForPackageAction",
       [](Client& c, Random& r) { c.registerForPackageAction(text(r), {}, {"package"}, hear); }},
      {"registerForTimeSync", [](Client& c, Random&) { c.registerForTimeSync(hear); }},
      {"registerForSecureSettingIntChange",
       [](Client& c, Random& r) { c.registerForSecureSettingIntChange(text(r), 1, hear); }},
      {"broadcastIntentWithIntKey",
       [](Client& c, Random& r) { c.broadcastIntentWithIntKey(text(r), text(r), text(r), text(r), 1); }},
      {"broadcastIntent",
       [](Client& c, Random& r) {
         const OrvelIntent sent = intent(r);
         c.broadcastIntent(r() % 8 == 0 ? nullptr : &sent);
       }},
      {"broadcastIntentWithPermission",
       [](Client& c, Random& r) {
         const OrvelIntent sent = intent(r);
         c.broadcastIntentWithPermission(&sent, text(r));
       }},
      {"startActivity",
       [](Client& c, Random& r) {
         const OrvelIntent sent = intent(r);
         c.startActivity(&sent);
       }},
      {"startForegroundService",
       [](Client& c, Random& r) {
         const OrvelIntent sent = intent(r);
         c.startForegroundService(&sent);
       }},
      {"startService",
       [](Client& c, Random& r) {
         const OrvelIntent sent = intent(r);
         c.startService(&sent);
       }},
      {"launchApplicationWithPackageName", [](Client& c, Random& r) { c.launchApplicationWithPackageName(text(r)); }},
      {"getApplicationInfoMetaData (number)",
       [](Client& c, Random& r) { c.getApplicationInfoMetaData(text(r), 0x80, text(r), 1); }},
      {"getApplicationInfoMetaData (text)",
       [](Client& c, Random& r) { c.getApplicationInfoMetaData(text(r), 0x80, text(r), text(r)); }},
      {"getPackageVersionCode", [](Client& c, Random& r) { c.getPackageVersionCode(text(r), 0); }},
      {"getPackageVersionName", [](Client& c, Random& r) { c.getPackageVersionName(text(r), 0); }},
      {"getRawResourceAsString", [](Client& c, Random& r) { c.getRawResourceAsString(text(r), 1); }},
      {"hasSystemFeature", [](Client& c, Random& r) { c.hasSystemFeature(text(r)); }},
      {"getPackageNamesForUid", [](Client& c, Random&) { c.getPackageNamesForUid(1000); }},
      {"getBroadcastReceiverPackageNames",
       [](Client& c, Random& r) { c.getBroadcastReceiverPackageNames(text(r), 0); }},
      {"getInstalledPackageNames",
       [](Client& c, Random&) {
         std::vector<std::string> names;
         c.getInstalledPackageNames(names);
       }},
      {"getForegroundPackages",
       [](Client& c, Random&) {
         std::vector<std::string> names;
         c.getForegroundPackages(names);
       }},
      {"getAppProcessState",
       [](Client& c, Random& r) {
         bool found = false;
         bool focused = false;
         int importance = 0;
         c.getAppProcessState(text(r), found, importance, focused);
       }},
      {"sendEvent",
       [](Client& c, Random& r) { c.sendEvent(text(r), "name", "", "", "", "", "", true, text(r), hear); }},
      {"registerForDirective", [](Client& c, Random& r) { c.registerForDirective(text(r), hear); }},
      {"recordTarselMetricEvent",
       [](Client& c, Random& r) {
         TarselMetricEvent event;
         event.addLongEvent(text(r), 1);
         c.recordTarselMetricEvent(r() % 8 == 0 ? nullptr : &event);
       }},
  };
  return all;
}

void run_one(Client& client, Random& random) {
  std::size_t chosen = random() % operations().size();
  if (chosen == 0 && random() % 8 != 0) chosen = 1;
  const Watchdog::Step step(operations()[chosen].name);
  operations()[chosen].run(client, random);
}

void run_operations(Client& client, std::uint64_t seed, int threads, long count) {
  std::vector<std::thread> workers;
  for (int n = 0; n < threads; ++n) {
    const long share = count / threads + (n < count % threads ? 1 : 0);
    workers.emplace_back([&client, share, own_seed = seed * 1000 + static_cast<std::uint64_t>(n)] {
      Random random(own_seed);
      for (long done = 0; done < share; ++done) run_one(client, random);
    });
  }
  for (std::thread& worker : workers) worker.join();
}

long heard() {
  return g_heard;
}

namespace {

std::mutex g_broken_mutex;
std::set<std::string>& broken_promises() {
  static auto& promises = *new std::set<std::string>;
  return promises;
}

}  // namespace

void require(bool condition, const char* promise) {
  if (condition) return;
  const std::lock_guard<std::mutex> lock(g_broken_mutex);
  if (broken_promises().insert(promise).second) std::printf("broken: %s\n", promise);
}

int broken() {
  const std::lock_guard<std::mutex> lock(g_broken_mutex);
  return static_cast<int>(broken_promises().size());
}

}  // namespace orvel::races
