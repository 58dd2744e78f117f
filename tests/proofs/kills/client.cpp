// A client that has subscribed to everything, asks and sends all the time, and writes its history to standard output.
// It lives as long as its standard input, whose lines are orders: "network" registers for the network again, "quiet"
// takes that back, "more N" registers for the setting kill.more.N. Its first argument goes before the namespaces of
// its directives.
#include <android/log.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "History.h"
#include "support/Methods.h"

namespace orvel::kills {
namespace {

using test::Client;
using test::Hear;
using test::Method;

// How often to ask and to send; often enough for every kill to meet a call and several events under way.
constexpr std::chrono::milliseconds kBetweenQueries(4);
constexpr std::chrono::milliseconds kBetweenEvents(20);

std::atomic<std::int64_t> s_calls(0);  // and registrations

// Times are taken under the lock, so that they are in the order of the lines.
void note(Record record) {
  static std::mutex& mutex = *new std::mutex;  // the library logs while the process exits
  const std::lock_guard<std::mutex> lock(mutex);
  record.t = now();
  const std::string line = lineOf(record) + '\n';
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t written = write(STDOUT_FILENO, line.data() + done, line.size() - done);
    if (written < 0) _exit(1);  // the program that keeps the history has ended
    done += static_cast<std::size_t>(written);
  }
}

// The milestones among the library's log lines.
void learn(const __android_logger_data*, const char* text) {
  thread_local std::string bound;  // on this thread; the line that ends a rebind names no service
  const std::string_view line(text);
  const auto name = [&](std::string_view before) -> std::string {
    if (line.substr(0, before.size()) != before) return {};
    const std::string_view rest = line.substr(before.size());
    return std::string(rest.substr(0, rest.find(')')));
  };
  const auto milestone = [](const char* what, const std::string& service) {
    if (!service.empty()) note({0, what, service});
  };
  milestone("died", name("on_binder_died:Service ("));
  milestone("gaveup", name("bind_to_service:Giving up connecting to service ("));
  if (const std::string service = name("bind_to_service:Bound to service: "); !service.empty()) {
    milestone("bound", bound = service);
  }
  if (line == "on_binder_died:Death callback completed") milestone("rebound", bound);
}

// Makes a registration and notes what it is told; gives its number.
std::int64_t subscribe(const std::string& service, const std::vector<std::string>& keys,
                       const std::function<bool(const Hear& hear)>& make) {
  const std::int64_t id = ++s_calls;
  for (const std::string& key : keys) note({0, "register", service, key, {}, id});
  const bool taken = make([id](const std::string& value) { note({0, "notice", {}, {}, value, id}); });
  note({0, "return", {}, {}, {}, id, taken});
  return id;
}

// By the name of its method, for what its requests begin with.
std::int64_t subscribe(Client& client, const std::string& name) {
  const Method& row = test::method(name);
  std::vector<std::string> keys;
  for (const test::Request& request : row.requests) {
    const std::string arguments = request.arguments;
    const std::string first = arguments.substr(0, arguments.rfind('\'') + 1);
    if (request.code == 34) keys.push_back(kSetting + first.substr(1, first.find('\'', 1) - 1));
    if (request.code == 28) keys.push_back(first.substr(1, first.find('\'', 1) - 1));
    if (request.code == 4) keys.emplace_back(kNetwork);
  }
  return subscribe(test::kServices.at(static_cast<std::size_t>(row.service)), keys,
                   [&](const Hear& hear) { return row.call(client, hear) == "true"; });
}

void subscribeToAll(Client& client, const std::string& prefix) {
  for (const char* twice : {"registerForDeviceNameChange", "registerForSecureSettingIntChange"})
    subscribe(client, twice);
  for (const Method& each : test::kMethods) {
    if (each.renewed && each.service == test::kDelegate) subscribe(client, each.name);
  }
  for (int i = 0; i < kNamespaces; ++i) {
    const std::string nspace = namespaceOf(prefix, i);
    subscribe(kCoordinator, {kDirective + nspace}, [&](const Hear& hear) {
      return client.registerForDirective(nspace, [hear](const std::string& first, const auto&...) { hear(first); });
    });
  }
}

void subscribeToSetting(Client& client, const std::string& name) {
  subscribe(kDelegate, {kSetting + name}, [&](const Hear& hear) {
    return client.registerForSecureSettingIntChange(name, 0, [hear](int value) { hear(std::to_string(value)); });
  });
}

// Calls one method after the other. A result that a failure would not give is an answer.
void callAll(Client& client, const std::vector<const char*>& names, std::chrono::milliseconds between,
             const std::atomic<bool>& ending) {
  for (std::size_t next = 0; !ending; next = (next + 1) % names.size()) {
    const Method& row = test::method(names[next]);
    const std::int64_t id = ++s_calls;
    note({0, "call", test::kServices.at(static_cast<std::size_t>(row.service)), row.name, {}, id});
    const auto told = [id](const std::string& value) { note({0, "result", {}, {}, value, id}); };
    const std::string result = row.call(client, told);
    note({0, "return", {}, {}, {}, id, result != row.failure && result != row.refused});
    std::this_thread::sleep_for(between);
  }
}

int run(const std::string& prefix) {
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  __android_log_set_logger(learn);
  const char* limit = std::getenv("ORVEL_CALL_TIMEOUT_MS");
  note({0,
        "begin",
        {},
        std::to_string(getpid()),
        std::to_string(ORVEL_CLOCK_SPEED),
        limit == nullptr ? 30'000 : std::atoi(limit)});
  Client& client = Client::getClient();
  if (!client.initialize()) return 1;
  subscribeToAll(client, prefix);
  std::int64_t network = subscribe(client, "registerForNetworkConnectivityChange");
  std::atomic<bool> ending(false);
  std::thread asking([&] {
    callAll(client,
            {"getDeviceName", "isScreenOn", "getDeviceSerialNumber", "getInstalledPackageNames",
             "getForegroundPackages", "recordTarselMetricEvent"},
            kBetweenQueries, ending);
  });
  std::thread sending([&] { callAll(client, {"sendEvent"}, kBetweenEvents, ending); });
  note({0, "ready"});
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "network") network = subscribe(client, "registerForNetworkConnectivityChange");
    if (line == "quiet") {
      note({0, "unregister", {}, {}, {}, network});
      if (client.unregisterForNetworkConnectivityChange()) note({0, "unregistered", {}, {}, {}, network, true});
    }
    if (line.rfind("more ", 0) == 0) subscribeToSetting(client, "kill.more." + line.substr(5));
  }
  note({0, "ending"});
  ending = true;
  asking.join();
  sending.join();
  client.shutdown();
  note({0, "end"});
  return 0;
}

}  // namespace
}  // namespace orvel::kills

int main(int argc, char** argv) {
  return argc == 2 ? orvel::kills::run(argv[1]) : 2;
}
