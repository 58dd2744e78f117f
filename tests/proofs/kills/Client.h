// One client of a run, and what it has said so far.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Record.h"
#include "support/Process.h"
#include "support/Runner.h"

namespace orvel::kills {

// Main thread, but for the one that reads. What is waited for and does not happen throws std::runtime_error.
class Client {
 public:
  // Starts it, with a log in `folder`; `name` must be one of its own in the run.
  Client(const std::string& folder, std::string name)
      : m_name(std::move(name)),
        // The limit of the client's calls alone: what the device says to itself may take longer on a busy machine.
        m_process({"orvel-kill-client", m_name}, {"ORVEL_CALL_TIMEOUT_MS=" + std::to_string(kCallLimit / kMillisecond)},
                  {folder + "/" + m_name + ".log", SIGKILL}),
        m_reading([this] { read(); }) {}
  ~Client() {
    if (!m_process.hasEnded()) m_process.signal(SIGKILL);
    m_reading.join();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  const std::string& name() const { return m_name; }
  pid_t pid() const { return m_process.pid(); }
  void order(const std::string& line) {
    m_process.write(line);
    ++m_orders;
  }
  // Until it has carried out all orders, and registered for everything before.
  void awaitObeyed() {
    await("does not obey", [&] { return latest("obeyed").value == std::to_string(m_orders); });
  }
  // Until it begins to make its registrations with a process of the service that was not alive at `killed`.
  void awaitBound(const std::string& service, Time killed) {
    await("has not bound " + service, [&] { return latest("bound", service).t > killed; });
  }
  // Until it has made them again, or given up.
  void awaitRebound(const std::string& service, Time killed) {
    await("has not bound " + service + " again", [&] {
      const Time bound = latest("bound", service).t;
      return latest("gaveup", service).t != 0 || (bound > killed && latest("rebound", service).t > bound);
    });
  }
  void awaitGivenUp(const std::string& service) {
    await("has not given up on " + service, [&] { return latest("gaveup", service).t != 0; });
  }
  // Until the newest notice for the key has the value.
  void awaitTold(const std::string& key, const std::string& value) {
    await("was not told " + value + " as " + key, [&] { return latest("notice", key).value == value; });
  }

  bool hasGivenUp() const { return m_gaveUp; }

  // Lets it shut down, and gives all that it has said.
  std::vector<Record> end() {
    m_process.closeInput();
    await("does not end", [&] { return m_over; });
    test::require(m_process.wait() == 0, m_name + " ends well");
    return std::move(m_records);
  }

 private:
  // The newest record of that kind, about that service or key. Under the lock.
  const Record& latest(const std::string& what, const std::string& about = "") { return m_latest[{what, about}]; }

  template <typename Happened>
  void await(const std::string& what, const Happened& happened) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_news.wait_for(lock, test::kPatience, [&] { return m_over || happened(); });
    if (!happened()) throw std::runtime_error(m_name + " " + what + (m_over ? "; it has ended" : ""));
  }

  void read() {
    std::ifstream lines("/proc/self/fd/" + std::to_string(m_process.outputDescriptor()));
    for (std::string line; std::getline(lines, line);) {
      const auto record = nlohmann::json::parse(line).get<Record>();
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_records.push_back(record);
      m_latest[{record.what, record.what == "notice" ? record.key : record.who}] = record;
      if (record.what == "gaveup") m_gaveUp = true;
      m_news.notify_all();
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_over = true;
    m_news.notify_all();
  }

  const std::string m_name;
  test::Process m_process;
  std::size_t m_orders = 0;

  std::mutex m_mutex;  // guards what follows
  std::condition_variable m_news;
  std::vector<Record> m_records;
  std::map<std::pair<std::string, std::string>, Record> m_latest;  // by kind, and service or key
  std::atomic<bool> m_gaveUp{false};
  bool m_over = false;  // it says no more

  std::thread m_reading;
};

}  // namespace orvel::kills
