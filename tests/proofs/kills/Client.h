// One client of a run, and what is known of it while it runs.
#pragma once

#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Device.h"
#include "History.h"
#include "support/Process.h"

namespace orvel::kills {

// Its history goes to a file as it is written. Main thread, but for the one that reads.
class Client {
 public:
  // Starts it; `name` must be one of its own in the run.
  Client(const std::filesystem::path& directory, std::string name)
      : m_name(std::move(name)),
        // The limit of the client's calls alone: what the device says to itself may take longer on a busy machine.
        m_process({"orvel-kill-client", m_name}, {"ORVEL_CALL_TIMEOUT_MS=1000"},
                  {directory / (m_name + ".log"), SIGKILL}),
        m_reading([this, directory] { read(directory / (m_name + ".jsonl")); }) {}
  ~Client() {
    if (!m_process.hasEnded()) m_process.signal(SIGKILL);
    m_reading.join();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  const std::string& name() const { return m_name; }
  pid_t pid() const { return m_process.pid(); }
  void order(const std::string& line) const { m_process.write(line); }
  void freeze(bool frozen) const { m_process.signal(frozen ? SIGSTOP : SIGCONT); }

  void awaitReady() {
    await("is not ready", [this] { return m_latest.count("ready ") != 0; });
  }
  // Until it begins to make its registrations with a process of the service that was not alive at `killed`.
  void awaitBound(const std::string& service, std::int64_t killed) {
    await("has not bound " + service, [&] { return m_latest["bound " + service] > killed; });
  }
  // Until it has made them again, or given up.
  void awaitRebound(const std::string& service, std::int64_t killed) {
    await("has not bound " + service + " again", [&] {
      const std::int64_t bound = m_latest["bound " + service];
      return m_latest.count("gaveup " + service) != 0 || (bound > killed && m_latest["rebound " + service] > bound);
    });
  }
  void awaitGivenUp(const std::string& service) {
    await("has not given up on " + service, [&] { return m_latest.count("gaveup " + service) != 0; });
  }
  // Until the newest notice for the key has the value.
  void awaitTold(const std::string& key, const std::string& value) {
    await("was not told " + value + " as " + key, [&] { return m_told[key] == value; });
  }
  // Until so many registrations, of any kind, have returned.
  void awaitRegistered(std::size_t count) {
    await("does not return from registering", [&] { return m_registered >= count; });
  }

  bool hasGivenUp() const { return m_gaveUp; }
  std::size_t registrations() const { return m_registered; }

  // Lets it shut down; throws Failure when it does not end well.
  void end() {
    m_process.closeInput();
    await("does not shut down", [this] { return m_over; });
    if (const int status = m_process.wait(); status != 0)
      throw Failure(m_name + " ended with status " + std::to_string(status));
  }

  test::Usage early;  // as long as it is young

 private:
  template <typename Happened>
  void await(const std::string& what, const Happened& happened) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_news.wait_for(lock, kPatience, [&] { return m_over || happened(); }) || !happened())
      throw Failure(m_name + " " + what + (m_over ? "; it has ended: see " + m_name + ".log" : " after 10 s"));
  }

  void read(const std::filesystem::path& history) {
    std::ofstream file(history);
    std::array<char, 65536> bytes{};
    std::string rest;
    for (ssize_t size = 1; size > 0;) {
      size = ::read(m_process.outputDescriptor(), bytes.data(), bytes.size());
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_over = size <= 0;
      if (!m_over) rest.append(bytes.data(), static_cast<std::size_t>(size));
      std::size_t begin = 0;
      for (std::size_t end = 0; (end = rest.find('\n', begin)) != std::string::npos; begin = end + 1)
        learn(readRecord(rest.substr(begin, end - begin)));
      file << rest.substr(0, begin);
      rest.erase(0, begin);
      m_news.notify_all();
    }
  }

  void learn(const Record& record) {
    m_latest[record.what + " " + record.who] = record.t;
    if (record.what == "gaveup") m_gaveUp = true;
    if (record.what == "register") m_registrations[record.id].push_back(record);
    if (record.what == "notice") {
      for (const Record& each : m_registrations[record.id]) m_told[each.key] = record.value;
    }
    if (record.what == "return") m_registered += m_registrations.count(record.id);
  }

  const std::string m_name;
  test::Process m_process;

  std::mutex m_mutex;  // guards what follows
  std::condition_variable m_news;
  bool m_over = false;                                          // it says no more
  std::map<std::string, std::int64_t> m_latest;                 // times, by kind of record and service
  std::map<std::int64_t, std::vector<Record>> m_registrations;  // the keys of each
  std::map<std::string, std::string> m_told;                    // the newest, by key
  std::atomic<bool> m_gaveUp{false};
  std::atomic<std::size_t> m_registered{0};

  std::thread m_reading;
};

}  // namespace orvel::kills
