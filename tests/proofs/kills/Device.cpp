#include "Device.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "Keys.h"

namespace orvel::kills {
namespace {

constexpr char kSettingsReceiver[] = "registerForSecureSettings";
constexpr char kBroadcastReceiver[] = "registerForBroadcastWithDataTypeOrScheme";
constexpr char kNetworkReceiver[] = "registerDefaultNetworkCallback";

// From the machine's wall clock to its steady one.
std::int64_t steadyTime(std::int64_t milliseconds) {
  static const std::int64_t offset = [] {
    const auto wall = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(wall).count() - now();
  }();
  return milliseconds * 1000 - offset;
}

std::string keyOf(const Json& entry, const std::string& method) {
  const Json& arguments = entry.at("arguments");
  if (method == kSettingsReceiver || method == "settingChanged")
    return kSettingPrefix + arguments.at("key").get<std::string>();
  if (method == kNetworkReceiver || method.rfind("network", 0) == 0) return kNetwork;
  return arguments.value("action", "");
}

// Of a notice with a value of its own.
std::string valueOf(const Json& entry, const std::string& method) {
  return method == "settingChanged" ? entry.at("arguments").at("value").get<std::string>() : "";
}

void awaitServing(Child& child) {
  std::string said;
  std::array<char, 4096> bytes{};
  while (said.find("serving in") == std::string::npos) {
    const ssize_t size = read(child.output(), bytes.data(), bytes.size());
    if (size <= 0) throw Failure("the device has not started; its errors are in sim.log");
    said.append(bytes.data(), static_cast<std::size_t>(size));
  }
}

}  // namespace

void Journal::note(Record record) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (record.t == 0) record.t = now();
  m_file << lineOf(record) << '\n' << std::flush;
  if (!m_file) throw Failure("cannot write the history of the device");
}

Device::Device(const std::filesystem::path& programs, const std::filesystem::path& directory)
    : m_journal(directory / "device.jsonl"),
      m_child({programs / "orvel-sim", "run", "--isolate", "--scenario", directory / "scenario.json"},
              directory / "sim.log", SIGTERM) {
  awaitServing(m_child);
  steadyTime(0);
  if (vesk_get_runtime(&m_runtime) != 0) throw Failure("no runtime");
  m_control.emplace(sim::Control::connect());
  m_acting.emplace(m_runtime);
  m_following = std::thread([this] { follow(); });
}

Device::~Device() {
  m_control.reset();
  m_acting.reset();
  m_child.signal(SIGTERM);
  m_child.wait();
  m_following.join();
}

std::vector<Device::Service> Device::services() {
  std::vector<Service> services;
  const Json answer = order({{"order", "services"}});
  for (const Json& each : answer.at("services"))
    services.push_back({each.at("service"), each.at("name"), each.at("pid")});
  return services;
}

Device::Service Device::service(const std::string& name) {
  const std::vector<Service> all = services();
  return *std::find_if(all.begin(), all.end(), [&](const Service& each) { return each.name == name; });
}

Json Device::order(const Json& order) {
  const std::lock_guard<std::mutex> lock(m_ordering);
  return m_control->send(order);
}

bool Device::act(const std::string& service, const std::string& key, const std::string& value, const Json& order) {
  Record done = {0, "done", {}, {}, {}, ++m_acts, true};
  m_journal.note({0, "act", service, key, value, m_acts, false});
  try {
    m_acting->send(order);
  } catch (const sim::NoDevice&) {
    throw;
  } catch (const std::runtime_error& error) {
    const bool full = std::strstr(error.what(), std::strerror(ENOBUFS)) != nullptr;
    done.ok = false;
    done.value = full ? "refused" : error.what();
  }
  m_journal.note(done);
  return done.ok;
}

Device::Service Device::kill(const std::string& name) {
  Service victim = service(name);
  if (victim.pid == 0) return victim;
  m_journal.note({0, "kill", name, {}, {}, victim.pid, false});
  m_killed[name] = now();
  m_victims[name] = victim.pid;
  signalChildOf(pid(), victim.pid, SIGKILL);
  m_journal.note({0, "killed", name, {}, {}, victim.pid, false});
  ++m_kills;
  return victim;
}

void Device::stop(const std::string& name) {
  signalChildOf(pid(), service(name).pid, SIGSTOP);
}

std::int64_t Device::killed(const std::string& name) const {
  const auto found = m_killed.find(name);
  return found == m_killed.end() ? 0 : found->second;
}

bool Device::serves(const Service& service) {
  vesk_handle handle{};
  if (vesk_binder_servicemanager_get(m_runtime, service.name.c_str(), &handle) != 0) return false;
  const bool found = vesk_handle_pid(m_runtime, &handle) == service.pid;
  vesk_service_unbind(m_runtime, &handle);
  return found;
}

void Device::awaitLife(const std::string& name) {
  for (const std::int64_t start = now();; endWaiting(start, name + " does not serve again")) {
    const Service found = service(name);
    if (found.pid != 0 && found.pid != m_victims[name] && serves(found)) return;
    try {
      // A process that ends before it serves is not started again by itself.
      if (found.pid == 0) order({{"order", "restart"}, {"service", found.id}});
    } catch (const sim::NoDevice&) {
      throw;
    } catch (const std::runtime_error&) {
      // It was started meanwhile.
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void Device::nameClient(pid_t pid, const std::string& client) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_clients[pid] = client;
}

std::size_t Device::made(const std::string& client, pid_t service) const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_made.find({client, service});
  return found == m_made.end() ? 0 : found->second;
}

void Device::awaitMade(const std::string& client, pid_t service, std::size_t count) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const std::string what =
      client + " has not made its " + std::to_string(count) + " registrations with process " + std::to_string(service);
  await(lock, m_news, what, [&] {
    if (!m_failure.empty()) throw Failure(m_failure);
    return m_made[{client, service}] >= count;
  });
}

void Device::follow() {
  try {
    sim::Control control(m_runtime);
    for (std::uint64_t seen = 0;;) {
      const Json answer = control.send({{"order", "traffic"}, {"after", seen}, {"wait", true}});
      for (const Json& entry : answer.at("entries")) {
        const auto number = entry.at("number").get<std::uint64_t>();
        if (number != ++seen) throw Failure("some of the device's traffic was missed");
        learn(entry);
      }
    }
  } catch (const sim::NoDevice&) {
    // It has ended.
  } catch (const std::exception& error) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_failure = error.what();
  }
}

void Device::learn(const Json& entry) {
  const bool isNotice = entry.contains("notification");
  const Json& name = entry.at(isNotice ? "notification" : "method");
  const std::string method = name.is_null() ? "" : name.get<std::string>();
  const pid_t service = entry.at("servicePid");
  std::unique_lock<std::mutex> lock(m_mutex);
  const std::string client = m_clients[entry.at("pid")];
  const std::int64_t t = steadyTime(entry.at("timeMs"));
  const int error = isNotice && entry.contains("error") ? entry.at("error").get<int>() : 0;
  // Of directives, who gave the order has been told; and the results of events have no key.
  if ((error == -ENOBUFS || error == -ETIMEDOUT) && method != "directive" && method != "eventResult") {
    m_journal.note({t, "undelivered", client, keyOf(entry, method), valueOf(entry, method), -error, false});
  }
  if (method != kSettingsReceiver && method != kBroadcastReceiver && method != kNetworkReceiver) return;
  const bool ok = !entry.contains("exception") && !entry.contains("error");
  m_journal.note(
      {t, "made", method == kNetworkReceiver ? kConnectivity : kDelegate, keyOf(entry, method), client, service, ok});
  ++m_made[{client, service}];
  ++m_made[{"", service}];
  m_news.notify_all();
}

}  // namespace orvel::kills
