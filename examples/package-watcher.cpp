// Writes a line for every package that is installed, removed or replaced, with the version that it has now. Ctrl-C ends
// it.
#include <ctime>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "orvel/Session.h"

using namespace orvel::service_apis;

namespace {

constexpr char kPrefix[] = "android.intent.action.PACKAGE_";

// Runs on the client's own thread, and may ask the client.
void tell(const std::string& action, const std::string& package) {
  const auto version = checked([&] { return OrvelDelegateClient::getClient().getPackageVersionName(package, 0); });
  const std::string has = version.value.empty() ? "is not installed" : "has version " + version.value;
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  std::cout << std::put_time(localtime_r(&now, &local), "%F %T ") << action.substr(sizeof(kPrefix) - 1) << ' '
            << package << ' ' << (version ? has : "cannot be asked for: " + version.status.text) << std::endl;
}

int failed(const orvel::Session& session) {
  if (session.wasEnded()) return 0;
  std::cerr << "package-watcher: " << lastCall().text << std::endl;
  return 1;
}

}  // namespace

int main() {
  orvel::Session session(StartOptions{{Service::kDelegate}});
  if (!session) return failed(session);
  std::vector<Subscription> subscriptions;
  for (const char* what : {"ADDED", "REMOVED", "REPLACED"}) {
    subscriptions.push_back(session->subscribePackageAction(kPrefix + std::string(what), {}, {"package"}, tell));
    if (!subscriptions.back()) return failed(session);
  }
  std::cerr << "package-watcher: watching; Ctrl-C ends" << std::endl;
  session.wait();
}
