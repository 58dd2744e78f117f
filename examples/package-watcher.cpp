// Writes a line for every package that is installed, removed or replaced, with the version that it has now. Ctrl-C ends
// it.
#include <ctime>
#include <iomanip>
#include <iostream>
#include <string>

#include "Ending.h"
#include "orvel/OrvelDelegateClient.h"

using orvel::service_apis::OrvelDelegateClient;

namespace {

constexpr char kPrefix[] = "android.intent.action.PACKAGE_";

bool watch(OrvelDelegateClient& client) {
  // Runs on the client's own thread, and may ask the client.
  const auto tell = [&client](const std::string& action, const std::string& package) {
    const std::string version = client.getPackageVersionName(package, 0);
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::cout << std::put_time(localtime_r(&now, &local), "%F %T ") << action.substr(sizeof(kPrefix) - 1) << ' '
              << package << ' ' << (version.empty() ? "is not installed" : "has version " + version) << std::endl;
  };
  for (const char* what : {"ADDED", "REMOVED", "REPLACED"}) {
    if (!client.registerForPackageAction(kPrefix + std::string(what), {}, {"package"}, tell)) return false;
  }
  return true;
}

}  // namespace

int main() {
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  Ending ending;
  if (!client.initialize() || !watch(client)) {
    if (ending.comesWithin({})) return 0;
    std::cerr << "package-watcher: there is no device, or its services do not answer" << std::endl;
    return 1;
  }
  std::cerr << "package-watcher: watching; Ctrl-C ends" << std::endl;
  ending.wait();
}
