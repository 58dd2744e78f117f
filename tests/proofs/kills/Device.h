// The simulated device of a run: its processes, the orders that it gets, and its records.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Record.h"
#include "support/Process.h"
#include "support/Runner.h"
#include "tools/orvel-sim/host/Control.h"

namespace orvel::kills {

using sim::Json;

// Main thread, where nothing else is said. Throws as sim::Control does.
class Device {
 public:
  // A service, by its short and its full name; the process is 0 while it is dead.
  struct Service {
    std::string id;
    std::string name;
    pid_t pid;
  };

  // Starts a device with scenario.json in `folder`, and a log there.
  explicit Device(const std::string& folder)
      : m_process({"orvel-sim", "run", "--isolate", "--scenario", folder + "/scenario.json"}, {},
                  {folder + "/sim.log", SIGTERM}) {
    m_process.waitForOutput("serving in ");
    vesk::check_errno(vesk_get_runtime(&m_runtime) == 0 ? 0 : -1);
    m_control.emplace(m_runtime);
    m_acting.emplace(m_runtime);
    m_following = std::thread([this] { follow(); });
  }
  ~Device() { end(); }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // Ends it, and gives all its records.
  std::vector<Record> end() {
    if (m_following.joinable()) {
      m_process.signal(SIGTERM);
      m_process.wait();
      m_following.join();
    }
    return std::move(m_records);
  }

  // Keeps a record of what has just ended. Any thread.
  void note(Record record) {
    record.until = now();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_records.push_back(std::move(record));
  }

  Json order(const Json& order) { return m_control->send(order); }

  std::vector<Service> services() {
    std::vector<Service> all;
    const Json answer = order({{"order", "services"}});
    for (const Json& each : answer.at("services")) all.push_back({each.at("service"), each.at("name"), each.at("pid")});
    return all;
  }

  // Has something told to all that registered for `key`; false where the device did not obey. Any thread, one at a
  // time.
  bool act(const std::string& service, const std::string& key, const std::string& value, const Json& order) {
    Record record = {now(), "act", service, key, value, 0, true};
    try {
      m_acting->send(order);
    } catch (const sim::NoDevice&) {
      throw;
    } catch (const std::runtime_error& error) {
      record.ok = false;
      if (std::strstr(error.what(), std::strerror(ENOBUFS)) != nullptr) record.what = "refused";
    }
    note(record);
    return record.ok;
  }

  // Kills the process that the service has now, if any. It gets another one, unless the death is `lasting`.
  void kill(const std::string& name, bool lasting = false) {
    const Service victim = service(name);
    if (victim.pid == 0) return;
    const Record record = {now(), "kill", name, {}, {}, victim.pid};
    m_killed[name] = record;
    if (lasting) order({{"order", "kill"}, {"service", victim.id}});
    if (!lasting) signal(victim, SIGKILL);
    note(record);
    ++m_kills;
  }
  void stop(const std::string& name) { signal(service(name), SIGSTOP); }
  // When the service was killed for the last time.
  Time killed(const std::string& name) { return m_killed[name].t; }
  long kills() const { return m_kills; }

  // Waits until the service has another process than the one killed last, which is listed until its parent notices.
  void awaitLife(const std::string& name) {
    const Time limit = now() + 10 * kSecond;
    for (Service found = service(name); found.pid == 0 || found.pid == m_killed[name].id; found = service(name)) {
      if (now() > limit) throw std::runtime_error(name + " does not live again");
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

 private:
  Service service(const std::string& name) {
    const std::vector<Service> all = services();
    return *std::find_if(all.begin(), all.end(), [&](const Service& each) { return each.name == name; });
  }

  // To the service's process, and to no other that has its number by now.
  void signal(const Service& victim, int number) {
    // The handle keeps naming this process, so what the device says of the number afterwards holds for it.
    const vesk::UniqueFd handle(static_cast<int>(syscall(SYS_pidfd_open, victim.pid, 0)));
    if (service(victim.name).pid == victim.pid) syscall(SYS_pidfd_send_signal, handle.get(), number, nullptr, 0);
  }

  // Reads the device's traffic as long as it lives.
  void follow() {
    try {
      sim::Control control(m_runtime);
      for (std::uint64_t seen = 0;;) {
        const Json answer = control.send({{"order", "traffic"}, {"after", seen}, {"wait", true}});
        for (const Json& entry : answer.at("entries")) {
          test::require(entry.at("number") == ++seen, "all of the device's traffic is read");
          noteRegistration(entry);
        }
      }
    } catch (const sim::NoDevice&) {
      // It has ended.
    }
  }

  void noteRegistration(const Json& entry) {
    const std::string method = entry.value("method", Json()).dump();
    const bool isNetwork = method == "\"registerDefaultNetworkCallback\"";
    const bool isSetting = method == "\"registerForSecureSettings\"";
    if (!isNetwork && !isSetting && method != "\"registerForBroadcastWithDataTypeOrScheme\"") return;
    const Json& arguments = entry.at("arguments");
    const std::string key = isNetwork   ? kNetwork
                            : isSetting ? kSetting + arguments.at("key").get<std::string>()
                                        : arguments.at("action").get<std::string>();
    const Time t = entry.at("timeMs").get<Time>() * kMillisecond - m_wallClock;
    const bool ok = !entry.contains("exception") && !entry.contains("error");
    note({t, "made", isNetwork ? kConnectivity : kDelegate, key, entry.at("pid").dump(), entry.at("servicePid"), ok});
  }

  // What to take from the wall clock for the steady one.
  const Time m_wallClock =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count() -
      now();
  test::Process m_process;
  void* m_runtime = nullptr;
  std::optional<sim::Control> m_control;
  std::optional<sim::Control> m_acting;  // waits while a service is stopped, and others have orders meanwhile
  long m_kills = 0;
  std::map<std::string, Record> m_killed;  // the last of each service

  std::mutex m_mutex;
  std::vector<Record> m_records;  // guarded by m_mutex
  std::thread m_following;
};

}  // namespace orvel::kills
