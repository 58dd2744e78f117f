// One client of a run, and what is known of it while it runs.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Child.h"
#include "Device.h"
#include "History.h"

namespace orvel::kills {

// Its history goes to a file as it is written. Main thread, but for the one that reads.
class ClientProcess {
 public:
  // Starts it; `name` must be one of its own in the run.
  ClientProcess(const std::filesystem::path& program, const std::filesystem::path& directory, std::string name);
  ~ClientProcess();  // kills it, unless it has ended

  const std::string& name() const { return m_name; }
  pid_t pid() const { return m_child.pid(); }
  const std::filesystem::path& history() const { return m_file; }

  void order(const std::string& line) const { m_child.write(line); }
  void freeze(bool frozen) const { m_child.signal(frozen ? SIGSTOP : SIGCONT); }

  void awaitReady();
  // Until it is bound to a process of the service that was not alive at `killed`, or has given up.
  void awaitRebound(const std::string& service, std::int64_t killed);
  void awaitGivenUp(const std::string& service);
  // Until the newest notice for the key has the value.
  void awaitTold(const std::string& key, const std::string& value);
  // Until so many registrations, of any kind, have returned.
  void awaitRegistered(std::size_t count);

  bool hasGivenUp() const;
  // How many keys the service keeps for it.
  std::size_t keysWith(const std::string& service) const;
  std::size_t registrations() const;

  // Lets it shut down; throws Failure when it does not end well.
  void end();

  Usage early;  // as long as it is young

 private:
  void read();
  void learn(const Record& record);
  template <typename Happened>
  void awaitNews(const std::string& what, const Happened& happened) const;

  const std::string m_name;
  const std::filesystem::path m_file;
  Child m_child;

  mutable std::mutex m_mutex;  // guards what follows
  mutable std::condition_variable m_news;
  bool m_ready = false;
  bool m_over = false;  // it says no more
  std::map<std::string, std::int64_t> m_bound;
  std::map<std::string, std::int64_t> m_rebound;
  std::set<std::string> m_gaveUp;
  std::map<std::int64_t, std::vector<Record>> m_registrations;  // the keys of each
  std::map<std::string, std::string> m_told;                    // the newest, by key
  std::map<std::string, std::size_t> m_kept;                    // keys, by service
  std::size_t m_registered = 0;

  std::thread m_reading;
};

}  // namespace orvel::kills
