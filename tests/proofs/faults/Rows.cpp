#include "Rows.h"

#include "orvel/OrvelIntent.h"
#include "orvel/TarselMetricEvent.h"

namespace orvel::fuzz {
namespace {

using Client = service_apis::OrvelDelegateClient;

std::string shown(bool value) {
  return value ? "true" : "false";
}

std::string shown(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += "[" + text + "]";
  return all;
}

service_apis::OrvelIntent intent() {
  service_apis::OrvelIntent it;
  it.action = "a.ACTION";
  it.data = "data";
  it.component = {"a.b", "a.b.C"};
  it.extras.put("n", 1);
  it.extras.put("l", 2LL);
  it.extras.put("s", std::string("text"));
  it.categories = {"c"};
  return it;
}

template <typename... Values>
std::function<void(Values...)> nothing() {
  return [](Values...) {};
}

template <bool (Client::*kMethod)(const service_apis::OrvelIntent*)>
std::string give(Client& client) {
  const service_apis::OrvelIntent given = intent();
  return shown((client.*kMethod)(&given));
}

std::string record_metric(Client& client) {
  service_apis::TarselMetricEvent event;
  std::string text = "text";
  event.addStringEvent("s", text);
  event.addLongEvent("l", 1);
  event.addDoubleEvent("d", 1.5);
  event.addBooleanEvent("b", true);
  client.recordTarselMetricEvent(&event);
  return "";
}

std::string installed(Client& client) {
  std::vector<std::string> names;
  const bool known = client.getInstalledPackageNames(names);
  return shown(known) + shown(names);
}

std::string foreground(Client& client) {
  std::vector<std::string> names;
  const bool known = client.getForegroundPackages(names);
  return shown(known) + shown(names);
}

std::string process_state(Client& client) {
  bool found = false;
  bool focused = false;
  int importance = 7;
  const bool known = client.getAppProcessState("a.b", found, importance, focused);
  return shown(known) + " " + shown(found) + " " + std::to_string(importance) + " " + shown(focused);
}

std::string launch(Client& client) {
  return shown(client.launchApplicationWithPackageName("a.b"));
}

std::string send_event(Client& client) {
  return shown(client.sendEvent("ns", "name", "3", "", "", "", "7", true, "payload", nothing<std::string, bool>()));
}

std::string hear_directive(Client& client) {
  using Text = const std::string&;
  return shown(client.registerForDirective("Alerts", nothing<Text, Text, Text, Text, Text, Text, Text>()));
}

std::string hear_network_and_stop(Client& client) {
  const bool heard = client.registerForNetworkConnectivityChange(nothing<bool>());
  return shown(client.unregisterForNetworkConnectivityChange() && heard);
}

}  // namespace

const std::vector<Row> kRows = {
    {"isMaroConnected", [](Client& it) { return shown(it.isMaroConnected()); }, "true", "true", {}},
    {"isNetworkConnected", [](Client& it) { return shown(it.isNetworkConnected()); }, "false", "false", {}},
    {"getDeviceName", [](Client& it) { return it.getDeviceName(); }, "text", "", {}},
    {"getDeviceSerialNumber", [](Client& it) { return it.getDeviceSerialNumber(); }, "text", "", {}},
    {"getDeviceType", [](Client& it) { return it.getDeviceType(); }, "4", "", {}},
    {"getCustomerDirectedID", [](Client& it) { return it.getCustomerDirectedID(); }, "text", "", {}},
    {"getCountryOfResidence", [](Client& it) { return it.getCountryOfResidence(); }, "text", "", {}},
    {"getPreferredMarketPlace", [](Client& it) { return it.getPreferredMarketPlace(); }, "text", "", {}},
    {"getSecureSettingInt", [](Client& it) { return std::to_string(it.getSecureSettingInt("k", 7)); }, "42", "7", {}},
    {"isDeviceRegistered", [](Client& it) { return shown(it.isDeviceRegistered()); }, "true", "false", {}},
    {"isScreenOn", [](Client& it) { return shown(it.isScreenOn()); }, "true", "false", {}},
    {"acquirePartialWakeLock", [](Client& it) { return shown(it.acquirePartialWakeLock()); }, "true", "false", {}},
    {"acquireFullWakeLock", [](Client& it) { return shown(it.acquireFullWakeLock()); }, "true", "false", {}},
    {"registerForDeviceNameChange",
     [](Client& it) { return shown(it.registerForDeviceNameChange(nothing<std::string>())); },
     "true",
     "false",
     {}},
    {"registerForDeviceRegistrationChange",
     [](Client& it) { return shown(it.registerForDeviceRegistrationChange(nothing<bool>())); },
     "true",
     "false",
     {}},
    {"registerForMaroConnectivityChange",
     [](Client& it) { return shown(it.registerForMaroConnectivityChange(nothing<bool>())); },
     "true",
     "false",
     {}},
    // Both say true whatever becomes of the call.
    {"registerForNetworkConnectivityChange", hear_network_and_stop, "true", "true", {}},
    {"registerForScreenStateChange",
     [](Client& it) { return shown(it.registerForScreenStateChange(nothing<bool>())); },
     "true",
     "false",
     {}},
    {"registerForPackageAction",
     [](Client& it) {
       return shown(it.registerForPackageAction("a.P", {"t"}, {"package"}, nothing<std::string, std::string>()));
     },
     "true",
     "false",
     {}},
    {"registerForTimeSync",
     [](Client& it) { return shown(it.registerForTimeSync(nothing<long long, long long>())); },
     "true",
     "false",
     {}},
    {"registerForSecureSettingIntChange",
     [](Client& it) { return shown(it.registerForSecureSettingIntChange("k", 1, nothing<int>())); },
     "true",
     "false",
     {}},
    {"broadcastIntentWithIntKey",
     [](Client& it) { return shown(it.broadcastIntentWithIntKey("a", "p", "c", "k", 1)); },
     "true",
     "false",
     {}},
    {"broadcastIntent", give<&Client::broadcastIntent>, "true", "false", {}},
    {"broadcastIntentWithPermission",
     [](Client& it) {
       const service_apis::OrvelIntent given = intent();
       return shown(it.broadcastIntentWithPermission(&given, "permission"));
     },
     "true",
     "false",
     {}},
    {"startActivity", give<&Client::startActivity>, "true", "false", {}},
    {"startForegroundService", give<&Client::startForegroundService>, "true", "false", {}},
    {"startService", give<&Client::startService>, "true", "false", {}},
    // A failed question gives an empty intent, which is then sent.
    {"launchApplicationWithPackageName", launch, "true", "false", {"true"}},
    {"getApplicationInfoMetaData (int)",
     [](Client& it) { return std::to_string(it.getApplicationInfoMetaData("a.b", 128, "n", 7)); },
     "5",
     "7",
     {}},
    {"getApplicationInfoMetaData (text)",
     [](Client& it) { return it.getApplicationInfoMetaData("a.b", 128, "s", std::string("none")); },
     "text",
     "none",
     {}},
    {"getPackageVersionCode", [](Client& it) { return it.getPackageVersionCode("a.b", 0); }, "1234", "", {"0"}},
    {"getPackageVersionName", [](Client& it) { return it.getPackageVersionName("a.b", 0); }, "1.2", "", {}},
    {"getRawResourceAsString", [](Client& it) { return it.getRawResourceAsString("a.b", 1); }, "text", "", {}},
    {"hasSystemFeature", [](Client& it) { return shown(it.hasSystemFeature("f")); }, "true", "false", {}},
    {"getPackageNamesForUid",
     [](Client& it) { return shown(it.getPackageNamesForUid(1)); },
     "[a.b][c]",
     "",
     {"[][]", "[a.b][]"}},
    {"getBroadcastReceiverPackageNames",
     [](Client& it) { return shown(it.getBroadcastReceiverPackageNames("a", 0)); },
     "[a.b]",
     "",
     {}},
    {"getInstalledPackageNames", installed, "true[a.b][c]", "true", {"true[][]", "true[a.b][]"}},
    {"getForegroundPackages", foreground, "true[a.b]", "false", {"true"}},
    {"getAppProcessState",
     process_state,
     "true true 100 true",
     "false false 7 false",
     {"true false -1 false", "true true 0 false", "true true 100 false"}},
    {"sendEvent", send_event, "true", "false", {}},
    {"registerForDirective", hear_directive, "true", "false", {}},
    {"recordTarselMetricEvent", record_metric, "", "", {}},
};

}  // namespace orvel::fuzz
