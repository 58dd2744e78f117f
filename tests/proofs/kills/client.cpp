// A client that has subscribed to everything, asks and sends all the time, and writes its history to standard output. It
// lives as long as its standard input, whose lines are orders: "network" registers for the network again, "quiet" takes
// that back, "more N" registers for the setting kill.more.N. Its first argument goes before the namespaces of its directives.
#include <android/log.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "History.h"
#include "Keys.h"
#include "orvel/OrvelDelegateClient.h"
#include "orvel/TarselMetricEvent.h"

namespace orvel::kills {
namespace {

using Client = service_apis::OrvelDelegateClient;

// How often to ask and to send; often enough for every kill to meet a call and several events under way.
constexpr std::chrono::milliseconds kBetweenQueries(4);
constexpr std::chrono::milliseconds kBetweenEvents(20);

// Times are taken under the lock, so that they are in the order of the lines.
void note(Record record) {
  static std::mutex& mutex = *new std::mutex;  // the library logs while the process exits
  const std::lock_guard<std::mutex> lock(mutex);
  record.t = now();
  const std::string line = lineOf(record) + '\n';
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t written = write(STDOUT_FILENO, line.data() + done, line.size() - done);
    if (written < 0) _exit(1);  // nobody keeps the history
    done += static_cast<std::size_t>(written);
  }
}

// The milestones among the library's log lines.
void learn(const __android_logger_data*, const char* text) {
  thread_local std::string bound;  // on this thread; the line that ends a rebind names no service
  const std::string_view line(text);
  const auto name = [&](std::string_view before, std::string_view after) -> std::string {
    if (line.substr(0, before.size()) != before) return {};
    const std::string_view rest = line.substr(before.size());
    return std::string(rest.substr(0, after.empty() ? rest.npos : rest.find(after)));
  };
  const auto milestone = [](const char* what, const std::string& service) {
    if (!service.empty()) note({0, what, service, {}, {}, 0, false});
  };
  milestone("died", name("on_binder_died:Service (", ")"));
  milestone("gaveup", name("bind_to_service:Giving up connecting to service (", ")"));
  if (const std::string service = name("bind_to_service:Bound to service: ", ""); !service.empty()) {
    milestone("bound", bound = service);
  }
  if (line == "on_binder_died:Death callback completed") milestone("rebound", bound);
}

class Subscriber {
 public:
  Subscriber(Client& client, std::string prefix) : m_client(client), m_prefix(std::move(prefix)) {}

  void subscribeToAll() {
    for (int twice = 0; twice < 2; ++twice) {
      subscribe(kDelegate, {kName}, [&](auto told) { return m_client.registerForDeviceNameChange(told); });
      subscribeToSetting(kSetting);
    }
    subscribe(kDelegate, {kAccountAdded, kAccountRemoved},
              [&](auto told) { return m_client.registerForDeviceRegistrationChange(flag(told)); });
    subscribe(kDelegate, {kAssistant},
              [&](auto told) { return m_client.registerForMaroConnectivityChange(flag(told)); });
    subscribe(kDelegate, {kScreenOn, kScreenOff},
              [&](auto told) { return m_client.registerForScreenStateChange(flag(told)); });
    subscribe(kDelegate, {kPackage}, [&](auto told) {
      const auto tell = [told](const std::string&, const std::string& package) { told(package); };
      return m_client.registerForPackageAction(kPackage, {}, {"package"}, tell);
    });
    subscribe(kDelegate, {kTime}, [&](auto told) {
      return m_client.registerForTimeSync(
          [told](long long from, long long to) { told(std::to_string(from) + " " + std::to_string(to)); });
    });
    subscribeToNetwork();
    for (int i = 0; i < kNamespaces; ++i) {
      const std::string nspace = namespaceOf(m_prefix, i);
      subscribe(kCoordinator, {kDirective + nspace}, [&](auto told) {
        const auto tell = [told](const std::string& first, const auto&...) { told(first); };
        return m_client.registerForDirective(nspace, tell);
      });
    }
  }

  void subscribeToNetwork() {
    subscribe(kConnectivity, {kNetwork},
              [&](auto told) { return m_client.registerForNetworkConnectivityChange(flag(told)); });
    m_network = m_registrations;
  }

  void unsubscribeFromNetwork() {
    note({0, "unregister", {}, {}, {}, m_network, false});
    if (m_client.unregisterForNetworkConnectivityChange()) note({0, "unregistered", {}, {}, {}, m_network, true});
  }

  void subscribeToSetting(const std::string& key) {
    const std::string setting = key.substr(std::string_view(kSettingPrefix).size());
    subscribe(kDelegate, {key}, [&](auto told) {
      return m_client.registerForSecureSettingIntChange(setting, 0, [told](int value) { told(std::to_string(value)); });
    });
  }

 private:
  using Told = std::function<void(const std::string& value)>;

  static std::function<void(bool)> flag(const Told& told) {
    return [told](bool value) { told(value ? "true" : "false"); };
  }

  template <typename Ask>
  void subscribe(const char* service, const std::vector<std::string>& keys, const Ask& ask) {
    const std::int64_t id = ++m_registrations;
    for (const std::string& key : keys) note({0, "register", service, key, {}, id, false});
    const bool taken = ask(Told([id](const std::string& value) { note({0, "notice", {}, {}, value, id, false}); }));
    note({0, "registered", {}, {}, {}, id, taken});
  }

  Client& m_client;
  const std::string m_prefix;
  std::int64_t m_registrations = 0;
  std::int64_t m_network = 0;  // the newest one for the network
};

// A call; ask is true only where the service has answered.
struct Query {
  const char* service;
  const char* name;
  bool (*ask)(Client& client);
};

const Query kQueries[] = {
    {kDelegate, "getDeviceName", [](Client& client) { return !client.getDeviceName().empty(); }},
    {kPower, "isScreenOn", [](Client& client) { return client.isScreenOn(); }},
    {kDelegate, "getDeviceSerialNumber", [](Client& client) { return !client.getDeviceSerialNumber().empty(); }},
    {kPackages, "getInstalledPackageNames",
     [](Client& client) {
       std::vector<std::string> names;
       return client.getInstalledPackageNames(names);
     }},
    {kActivity, "getForegroundPackages",
     [](Client& client) {
       std::vector<std::string> names;
       return client.getForegroundPackages(names);
     }},
    {kMetrics, "recordTarselMetricEvent",
     [](Client& client) {
       service_apis::TarselMetricEvent event;
       event.header1 = "kills";
       client.recordTarselMetricEvent(&event);
       return false;  // it gives no answer
     }},
};

void askAll(Client& client, const std::atomic<bool>& ending) {
  for (std::int64_t id = 1; !ending; ++id) {
    const Query& query = kQueries[static_cast<std::size_t>(id) % std::size(kQueries)];
    note({0, "call", query.service, query.name, {}, id, false});
    note({0, "return", {}, {}, {}, id, query.ask(client)});
    std::this_thread::sleep_for(kBetweenQueries);
  }
}

void sendAll(Client& client, const std::atomic<bool>& ending) {
  for (std::int64_t id = 1; !ending; ++id) {
    note({0, "send", {}, {}, {}, id, false});
    const auto told = [id](const std::string& result, bool) { note({0, "result", {}, {}, result, id, false}); };
    const bool taken = client.sendEvent("Kills", "Happened", "", "", "", "", "", false, std::to_string(id), told);
    note({0, "sent", {}, {}, {}, id, taken});
    std::this_thread::sleep_for(kBetweenEvents);
  }
}

int run(const std::string& prefix) {
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  __android_log_set_logger(learn);
  const char* limit = std::getenv("ORVEL_CALL_TIMEOUT_MS");
  note({0, "begin", {}, {}, std::to_string(ORVEL_CLOCK_SPEED), limit == nullptr ? 30'000 : std::atoi(limit), false});
  Client& client = Client::getClient();
  if (!client.initialize()) return 1;
  Subscriber subscriber(client, prefix);
  subscriber.subscribeToAll();
  std::atomic<bool> ending(false);
  std::thread asking([&] { askAll(client, ending); });
  std::thread sending([&] { sendAll(client, ending); });
  note({0, "ready", {}, {}, {}, 0, false});
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string verb;
    std::string number;
    words >> verb >> number;
    if (verb == "network") subscriber.subscribeToNetwork();
    if (verb == "quiet") subscriber.unsubscribeFromNetwork();
    if (verb == "more") subscriber.subscribeToSetting(kMoreSettings + number);
  }
  note({0, "ending", {}, {}, {}, 0, false});
  ending = true;
  asking.join();
  sending.join();
  client.shutdown();
  note({0, "end", {}, {}, {}, 0, false});
  return 0;
}

}  // namespace
}  // namespace orvel::kills

int main(int argc, char** argv) {
  return argc == 2 ? orvel::kills::run(argv[1]) : 2;
}
