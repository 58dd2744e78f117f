// Nothing is forgotten: every public method has a subcommand that makes its calls, and every call that the simulated
// device serves is made by one of them.
#include <cctype>
#include <fstream>
#include <iterator>
#include <set>

#include "Device.h"

namespace orvel::e2e {
namespace {

using Names = std::set<std::string>;

constexpr char kRegister[] = "delegate.registerForBroadcastWithDataTypeOrScheme";

// Public methods, a subcommand that is for them, and the services' methods that it calls.
constexpr struct Row {
  const char *methods, *command, *calls;
} kRows[] = {
    {"getClient initialize shutdown isMaroConnected", "device",
     "delegate.getDeviceName delegate.getDSNV2 delegate.getDeviceInfo delegate.getDirectedId delegate.getCOR "
     "delegate.getPFM power.isInteractive"},
    {"isMaroConnected", "assistant", ""},
    {"isNetworkConnected", "network", ""},
    {"getDeviceName", "get name", "delegate.getDeviceName"},
    {"getDeviceSerialNumber", "get serial-number", "delegate.getDSNV2"},
    {"getDeviceType", "get type", "delegate.getDeviceInfo"},
    {"getCustomerDirectedID", "get customer-id", "delegate.getDirectedId"},
    {"isDeviceRegistered", "get registered", "delegate.getDirectedId"},
    {"getCountryOfResidence", "get country", "delegate.getCOR"},
    {"getPreferredMarketPlace", "get marketplace", "delegate.getPFM"},
    {"getSecureSettingInt", "setting k", "delegate.getSecureSetting"},
    {"isScreenOn", "screen", "power.isInteractive"},
    {"acquirePartialWakeLock", "wake-lock partial", "power.getVersion power.wakeUpDeviceCustom"},
    {"acquireFullWakeLock", "wake-lock full", "power.wakeUpDevice"},
    {"registerForDeviceNameChange", "watch name", kRegister},
    {"registerForDeviceRegistrationChange", "watch registration", kRegister},
    {"registerForMaroConnectivityChange", "watch assistant", kRegister},
    {"registerForNetworkConnectivityChange unregisterForNetworkConnectivityChange", "watch network",
     "connectivity.registerDefaultNetworkCallback connectivity.unregisterNetworkCallback"},
    {"registerForScreenStateChange", "watch screen", kRegister},
    {"registerForPackageAction", "watch package", kRegister},
    {"registerForTimeSync", "watch time", kRegister},
    {"registerForSecureSettingIntChange", "watch setting:k", "delegate.registerForSecureSettings"},
    {"broadcastIntentWithIntKey", "am broadcast-int A p/.C k 1", "delegate.sendBroadcast"},
    {"broadcastIntent", "am broadcast -a A", "delegate.sendBroadcast"},
    {"broadcastIntentWithPermission", "am broadcast -a A --receiver-permission p",
     "delegate.sendBroadcastWithPermission"},
    {"startActivity", "am start -a A", "delegate.startActivity"},
    {"startForegroundService", "am start-foreground-service -a A", "delegate.startForegroundService"},
    {"startService", "am start-service -a A", "delegate.startService"},
    {"launchApplicationWithPackageName", "am launch com.quarlo.music",
     "delegate.getLaunchIntentForPackage delegate.startActivity"},
    {"getForegroundPackages", "am foreground", "activity.getRunningAppProcessesInfo"},
    {"getAppProcessState", "am process-state p", "activity.getRunningAppProcessesInfo"},
    {"getInstalledPackageNames", "pm list packages", "packages.getPackages"},
    {"getPackageNamesForUid", "pm list packages --uid 1000", "delegate.getPackageNamesForUid"},
    {"getPackageVersionCode", "pm version-code com.quarlo.music", "delegate.getPackageInfo"},
    {"getPackageVersionName", "pm version-name com.quarlo.music", "delegate.getPackageInfo"},
    {"getApplicationInfoMetaData", "pm meta-data com.quarlo.music k", "delegate.getApplicationInfo"},
    {"getRawResourceAsString", "pm resource com.quarlo.music 1", "delegate.getRawResourceAsString"},
    {"hasSystemFeature", "pm has-feature f", "delegate.checkSystemFeature"},
    {"getBroadcastReceiverPackageNames", "pm query-receivers A", "delegate.queryBroadcastReceivers"},
    {"sendEvent", "event N n", "events.sendEvent"},
    {"registerForDirective", "directive N", ""},  // asks no service
    {"recordTarselMetricEvent", "metric a b", "metrics.recordTarselMetricEvent"},
};

Words split(const char* text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

Names namesIn(const char* text) {
  const Words words = split(text);
  return {words.begin(), words.end()};
}

class PublicInterface : public Device {
 protected:
  // The calls of all clients so far, in their order.
  std::vector<std::string> calls() const {
    std::vector<std::string> made;
    for (const nlohmann::json& entry : view({"traffic", "--past"})) {
      if (entry.contains("method"))
        made.push_back(entry["service"].get<std::string>() + "." + entry["method"].get<std::string>());
    }
    return made;
  }

  // The methods that the device's services have, from the help of a verb that takes them all.
  Names served() const {
    std::istringstream help(run({"orvel-sim", "delay", "--help"}).output);
    Names methods;
    std::string service;
    for (std::string line; std::getline(help, line);) {
      const Words words = split(line.c_str());  // "delegate:" and what it is for, or "33" "getDeviceName()"
      if (words.size() > 1 && words[0].back() == ':') service = words[0].substr(0, words[0].size() - 1);
      if (words.size() > 1 && std::isdigit(words[0].front()) != 0) {
        methods.insert(service + "." + words[1].substr(0, words[1].find('(')));
      }
    }
    return methods;
  }

  // The methods that the public header declares, each on a line that begins with its result's type.
  static Names declared() {
    std::ifstream header(ORVEL_PUBLIC_HEADER);
    Names methods;
    for (std::string line; std::getline(header, line);) {
      const Words words = split(line.substr(0, line.find('(')).c_str());
      const bool member = line.find('(') != std::string::npos && line.find("  ") == 0 && std::islower(line[2]) != 0;
      if (member && words.size() > 1 && words[0] != "using") methods.insert(words.back());
    }
    return methods;
  }
};

TEST_P(PublicInterface, EveryMethodHasASubcommandAndEveryServedCallIsMade) {
  Names methods;
  Names made;
  for (const Row& row : kRows) {
    const std::size_t before = calls().size();
    const Words command = split(row.command);
    const bool streams = command[0] == "watch" || command[0] == "directive";
    const Result result = run(Words{"orvelctl"} + command + (streams ? Words{"--for", "0.001"} : Words{}));
    const bool answered = result.status == 0 || result.error.empty();  // 1 without a word is an answer: no
    EXPECT_TRUE(answered) << row.command << ": " << result.error;
    const std::vector<std::string> now = calls();
    EXPECT_EQ(Names(now.begin() + static_cast<std::ptrdiff_t>(before), now.end()), namesIn(row.calls)) << row.command;
    methods.merge(namesIn(row.methods));
    made.merge(namesIn(row.calls));
  }

  EXPECT_EQ(methods, declared());

  made.insert("metrics.getVersion");  // serves nobody yet
  EXPECT_EQ(made, served());
}

INSTANTIATE_TEST_SUITE_P(, PublicInterface, ::testing::Values(false));

}  // namespace
}  // namespace orvel::e2e
