// A client that has subscribed to everything, asks and sends all the time, and writes its records to standard output.
// It lives as long as its standard input, whose lines are orders: "network" registers for the network again, "quiet"
// takes that back, anything else is a setting to register for. Its argument is the namespace of its directives.
#include <android/log.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Record.h"
#include "support/Methods.h"

namespace orvel::kills {
namespace {

using test::Client;
using test::Hear;
using test::Method;

std::atomic<std::int64_t> s_calls(0);  // and registrations
std::atomic<bool> s_ending(false);

// Times are taken under the lock, so that they are in the order of the lines.
void note(Record record) {
  static std::mutex& mutex = *new std::mutex;  // the library logs while the process exits
  const std::lock_guard<std::mutex> lock(mutex);
  record.t = now();
  const std::string line = nlohmann::json(record).dump() + '\n';     // which a pipe takes whole
  if (write(STDOUT_FILENO, line.data(), line.size()) < 0) _exit(1);  // the program that reads has ended
}

// The milestones among the library's log lines.
void learn(const __android_logger_data*, const char* text) {
  thread_local std::string service;  // which the line that ends a rebind does not name
  const std::string line(text);
  const std::pair<const char*, std::string> milestones[] = {
      {"died", "on_binder_died:Service ("},
      {"gaveup", "bind_to_service:Giving up connecting to service ("},
      {"bound", "bind_to_service:Bound to service: "}};
  for (const auto& [what, before] : milestones) {
    if (line.rfind(before, 0) != 0) continue;
    service = line.substr(before.size(), line.find(')') - before.size());
    note({0, what, service});
  }
  if (line == "on_binder_died:Death callback completed") note({0, "rebound", service});
}

// Makes a registration and notes what it is told; gives its number.
std::int64_t subscribe(const std::string& service, const std::vector<std::string>& keys,
                       const std::function<bool(const Hear& hear)>& make) {
  const std::int64_t id = ++s_calls;
  for (const std::string& key : keys) note({0, "register", service, key, {}, id});
  const bool taken = make([id, key = keys.front()](const std::string& value) {
    note({0, "notice", {}, key, value, id});
  });
  note({0, "return", {}, {}, {}, id, taken});
  return id;
}

// By the name of its method, for what its requests begin with.
std::int64_t subscribe(Client& client, const std::string& name) {
  const Method& row = test::method(name);
  std::vector<std::string> keys;
  for (const test::Request& request : row.requests) {
    const std::string arguments = request.arguments;
    const std::string first = arguments.substr(0, arguments.find('\'', 1));
    if (request.code == 34) keys.push_back(kSetting + first.substr(1));
    if (request.code == 28) keys.push_back(first.substr(1));
    if (request.code == 4) keys.emplace_back(kNetwork);
  }
  return subscribe(test::kServices.at(static_cast<std::size_t>(row.service)), keys,
                   [&](const Hear& hear) { return row.call(client, hear) == "true"; });
}

void subscribeToAll(Client& client, const std::string& nspace) {
  for (const char* twice : {"registerForDeviceNameChange", "registerForSecureSettingIntChange"})
    subscribe(client, twice);
  for (const Method& each : test::kMethods) {
    if (each.renewed && each.service == test::kDelegate) subscribe(client, each.name);
  }
  subscribe(kCoordinator, {kDirective + nspace}, [&](const Hear& hear) {
    return client.registerForDirective(nspace, [hear](const std::string& first, const auto&...) { hear(first); });
  });
}

// Calls one method after the other, with a pause in between. A result that a failure would not give is an answer.
void callAll(Client& client, const std::vector<const char*>& names, int milliseconds) {
  for (std::size_t next = 0; !s_ending; next = (next + 1) % names.size()) {
    const Method& row = test::method(names[next]);
    const std::int64_t id = ++s_calls;
    note({0, "call", test::kServices.at(static_cast<std::size_t>(row.service)), row.name, {}, id});
    const auto told = [id](const std::string& value) { note({0, "result", {}, {}, value, id}); };
    const std::string result = row.call(client, told);
    note({0, "return", {}, {}, {}, id, result != row.failure && result != row.refused});
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  }
}

void obey(Client& client, const std::string& order) {
  static std::int64_t s_network = 0;  // the newest registration for it
  if (order == "network") {
    s_network = subscribe(client, "registerForNetworkConnectivityChange");
  } else if (order == "quiet") {
    note({0, "unregister", {}, {}, {}, s_network});
    if (client.unregisterForNetworkConnectivityChange()) note({0, "unregistered", {}, {}, {}, s_network});
  } else {
    subscribe(kDelegate, {kSetting + order}, [&](const Hear& hear) {
      return client.registerForSecureSettingIntChange(order, 0, [hear](int value) { hear(std::to_string(value)); });
    });
  }
}

int run(const std::string& nspace) {
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  __android_log_set_logger(learn);
  note({0, "begin", {}, std::to_string(ORVEL_CLOCK_SPEED), std::to_string(getpid())});
  Client& client = Client::getClient();
  const auto links = client.subscribeLink([](const service_apis::Link& link) {
    const std::string numbers = std::to_string(link.epoch) + ' ' + std::to_string(link.held) + ' ' +
                                std::to_string(link.restored) + ' ' + std::to_string(link.refused);
    note({0, "link", test::kServices.at(static_cast<std::size_t>(link.service)), service_apis::nameOf(link.state),
          numbers, 0, link.network_lost});
  });
  if (!client.initialize()) return 1;
  subscribeToAll(client, nspace);
  obey(client, "network");
  // Often enough for every kill to meet a call and several events under way.
  const std::vector<const char*> queries = {"getDeviceName",         "isScreenOn",
                                            "getDeviceSerialNumber", "getInstalledPackageNames",
                                            "getForegroundPackages", "recordTarselMetricEvent"};
  std::thread asking([&] { callAll(client, queries, 4); });
  std::thread sending([&] { callAll(client, {"sendEvent"}, 20); });
  note({0, "obeyed", {}, {}, "0"});
  int orders = 0;
  for (std::string line; std::getline(std::cin, line);) {
    obey(client, line);
    note({0, "obeyed", {}, {}, std::to_string(++orders)});
  }
  note({0, "ending"});
  s_ending = true;
  asking.join();
  sending.join();
  client.shutdown();
  return 0;
}

}  // namespace
}  // namespace orvel::kills

int main(int argc, char** argv) {
  return argc == 2 ? orvel::kills::run(argv[1]) : 2;
}
