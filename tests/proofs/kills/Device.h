// The simulated device of a run: its processes, the orders that it gets, and its history.
#pragma once

#include <condition_variable>
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

#include "Child.h"
#include "History.h"
#include "tools/orvel-sim/host/Control.h"

namespace orvel::kills {

using sim::Json;

// What ends a run before its time; the text says why.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Waits, at most 30 s, until `happened`; throws Failure with `what`, and also when the loop is interrupted.
constexpr std::int64_t kPatience = 30'000'000;
void endWaiting(std::int64_t since, const std::string& what);
template <typename Happened>
void await(std::unique_lock<std::mutex>& lock, std::condition_variable& news, const std::string& what,
           const Happened& happened) {
  const std::int64_t start = now();
  while (!happened()) {
    news.wait_for(lock, std::chrono::milliseconds(20));
    endWaiting(start, what);
  }
}

// A history that grows. Threads: any.
class Journal {
 public:
  explicit Journal(const std::filesystem::path& file) : m_file(file) {}

  // Dates the record, unless it has a date.
  void note(Record record);

 private:
  std::mutex m_mutex;
  std::ofstream m_file;
};

class Device {
 public:
  // A service, by its short and its full name; the process is 0 while it is dead.
  struct Service {
    std::string id;
    std::string name;
    pid_t pid;
  };

  // Starts a device in `directory`, and writes its history there. Main thread.
  Device(const std::filesystem::path& programs, const std::filesystem::path& directory);
  ~Device();

  pid_t pid() const { return m_child.pid(); }
  Journal& journal() { return m_journal; }

  std::vector<Service> services();
  Service service(const std::string& name);

  // Any thread. Throws as sim::Control does.
  Json order(const Json& order);

  // Has something told to whoever registered for `key`, and writes down how that went; false where the device did not
  // obey. One at a time.
  bool act(const std::string& service, const std::string& key, const std::string& value, const Json& order);

  // Kills the process that the service has now, and gives it; `stop` first lets it stand still.
  Service kill(const std::string& name);
  void stop(const std::string& name);
  // When the service was killed for the last time.
  std::int64_t killed(const std::string& name) const;
  std::int64_t kills() const { return m_kills; }

  // Waits until another process than the one killed last serves.
  void awaitLife(const std::string& name);

  // Whose registrations those of a process are.
  void nameClient(pid_t pid, const std::string& client);
  // How many the client has made with a process of a service; without a client, how many anybody has.
  std::size_t made(const std::string& client, pid_t service) const;
  void awaitMade(const std::string& client, pid_t service, std::size_t count);

 private:
  void follow();
  void learn(const Json& entry);
  bool serves(const Service& service);

  Journal m_journal;
  Child m_child;
  void* m_runtime = nullptr;
  std::mutex m_ordering;
  std::optional<sim::Control> m_control;
  std::optional<sim::Control> m_acting;  // waits while a service is stopped, and others have orders meanwhile
  std::int64_t m_acts = 0;
  std::int64_t m_kills = 0;
  std::map<std::string, std::int64_t> m_killed;  // when
  std::map<std::string, pid_t> m_victims;        // the latest; a dead process is listed until its parent has noticed

  mutable std::mutex m_mutex;  // guards what follows
  mutable std::condition_variable m_news;
  std::map<pid_t, std::string> m_clients;
  std::map<std::pair<std::string, pid_t>, std::size_t> m_made;
  std::string m_failure;  // of the thread below

  std::thread m_following;  // the traffic
};

}  // namespace orvel::kills
