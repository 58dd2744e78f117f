// The simulated device of a run: its processes, the orders that it gets, and its history.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "History.h"
#include "support/Process.h"
#include "support/Runner.h"
#include "tools/orvel-sim/host/Control.h"

namespace orvel::kills {

using sim::Json;

// What ends a run before its time; the text says why.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// How long anything may take that the run waits for.
constexpr std::chrono::seconds kPatience{10};

class Device {
 public:
  // A service, by its short and its full name; the process is 0 while it is dead.
  struct Service {
    std::string id;
    std::string name;
    pid_t pid;
  };

  // Starts a device in `directory`, and writes its history there. Main thread.
  explicit Device(const std::filesystem::path& directory)
      : m_file(directory / "device.jsonl"),
        m_process({"orvel-sim", "run", "--isolate", "--scenario", directory / "scenario.json"}, {},
                  {directory / "sim.log", SIGTERM}) {
    m_process.waitForOutput("serving in ");
    if (vesk_get_runtime(&m_runtime) != 0) throw Failure("no runtime");
    m_control.emplace(m_runtime);
    m_acting.emplace(m_runtime);
    m_following = std::thread([this] { follow(); });
  }
  ~Device() {
    m_control.reset();
    m_acting.reset();
    m_process.signal(SIGTERM);
    m_process.wait();
    m_following.join();
  }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  pid_t pid() const { return m_process.pid(); }

  // Adds to the history, with the time unless the record has one. Any thread.
  void note(Record record) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (record.t == 0) record.t = now();
    if (!(m_file << lineOf(record) << std::endl)) throw Failure("cannot write the history of the device");
  }

  // Throws as sim::Control does.
  Json order(const Json& order) { return m_control->send(order); }

  std::vector<Service> services() {
    std::vector<Service> all;
    const Json answer = order({{"order", "services"}});
    for (const Json& each : answer.at("services")) all.push_back({each.at("service"), each.at("name"), each.at("pid")});
    return all;
  }
  Service service(const std::string& name) {
    const std::vector<Service> all = services();
    return *std::find_if(all.begin(), all.end(), [&](const Service& each) { return each.name == name; });
  }

  // Has something told to all that registered for `key`, and writes down how that went; false where the device did
  // not obey. One at a time.
  bool act(const std::string& service, const std::string& key, const std::string& value, const Json& order) {
    Record done = {0, "done", {}, {}, {}, ++m_acts, true};
    note({0, "act", service, key, value, m_acts});
    try {
      m_acting->send(order);
    } catch (const sim::NoDevice&) {
      throw;
    } catch (const std::runtime_error& error) {
      done.ok = false;
      done.value = std::strstr(error.what(), std::strerror(ENOBUFS)) != nullptr ? "refused" : error.what();
    }
    note(done);
    return done.ok;
  }

  // Kills the process that the service has now, and gives its number; 0 for one that is dead already. It gets another
  // one, unless the death is `lasting`.
  pid_t kill(const std::string& name, bool lasting = false) {
    const Service victim = service(name);
    if (victim.pid == 0) return 0;
    note({0, "kill", name, {}, {}, victim.pid});
    m_killed[name] = {now(), victim.pid};
    if (lasting) order({{"order", "kill"}, {"service", victim.id}});
    if (!lasting) signal(victim.pid, SIGKILL);
    note({0, "killed", name, {}, {}, victim.pid});
    ++m_kills;
    return victim.pid;
  }
  void stop(const std::string& name) { signal(service(name).pid, SIGSTOP); }
  // When the service was killed for the last time.
  std::int64_t killed(const std::string& name) { return m_killed[name].first; }
  std::int64_t kills() const { return m_kills; }

  // Waits until the service has another process than the one killed last.
  void awaitLife(const std::string& name) {
    poll(name + " does not live again", [&] {
      const Service found = service(name);
      try {
        // A process that ends before it serves is not started again by itself.
        if (found.pid == 0) order({{"order", "restart"}, {"service", found.id}});
      } catch (const sim::NoDevice&) {
        throw;
      } catch (const std::runtime_error&) {
        // It was started meanwhile.
      }
      return found.pid != 0 && found.pid != m_killed[name].second;
    });
  }
  template <typename Happened>
  static void poll(const std::string& what, const Happened& happened) {
    for (const auto limit = std::chrono::steady_clock::now() + kPatience; !happened();) {
      if (std::chrono::steady_clock::now() > limit) throw Failure(what + " after 10 s");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

 private:
  // To a process of the device, and to no other that has its number by now.
  void signal(pid_t process, int number) const {
    // The handle keeps naming this process, so what is found out about the number afterwards holds for it.
    const vesk::UniqueFd handle(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("PPid:", 0) != 0) {
    }
    if (handle && line == "PPid:\t" + std::to_string(pid()))
      syscall(SYS_pidfd_send_signal, handle.get(), number, nullptr, 0);
  }

  // Reads the device's traffic as long as it lives.
  void follow() {
    try {
      sim::Control control(m_runtime);
      for (std::uint64_t seen = 0;;) {
        const Json answer = control.send({{"order", "traffic"}, {"after", seen}, {"wait", true}});
        for (const Json& entry : answer.at("entries")) {
          if (entry.at("number").get<std::uint64_t>() != ++seen)
            throw Failure("some of the device's traffic was missed");
          learn(entry);
        }
      }
    } catch (const sim::NoDevice&) {
      // It has ended.
    } catch (const std::exception& error) {
      test::require(false, error.what());
    }
  }

  void learn(const Json& entry) {
    if (!entry.contains("method") || entry.at("method").is_null()) return;
    const std::string method = entry.at("method");
    const bool isNetwork = method == "registerDefaultNetworkCallback";
    if (!isNetwork && method != "registerForSecureSettings" && method != "registerForBroadcastWithDataTypeOrScheme")
      return;
    const Json& arguments = entry.at("arguments");
    const std::string key = isNetwork                   ? kNetwork
                            : arguments.contains("key") ? kSetting + arguments.at("key").get<std::string>()
                                                        : arguments.at("action").get<std::string>();
    const std::int64_t t = entry.at("timeMs").get<std::int64_t>() * 1000 - m_wallClock;
    const bool ok = !entry.contains("exception") && !entry.contains("error");
    note({t, "made", isNetwork ? kConnectivity : kDelegate, key, entry.at("pid").dump(), entry.at("servicePid"), ok});
  }

  // What to take from microseconds of the wall clock for those of the steady one.
  const std::int64_t m_wallClock =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count() -
      now();
  std::mutex m_mutex;
  std::ofstream m_file;  // guarded by m_mutex
  test::Process m_process;
  void* m_runtime = nullptr;
  std::optional<sim::Control> m_control;
  std::optional<sim::Control> m_acting;  // waits while a service is stopped, and others have orders meanwhile
  std::int64_t m_acts = 0;
  std::int64_t m_kills = 0;
  // When each service was killed for the last time, and its process, which is listed until its parent has noticed.
  std::map<std::string, std::pair<std::int64_t, pid_t>> m_killed;

  std::thread m_following;
};

}  // namespace orvel::kills
