#include "ClientProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "Keys.h"

namespace orvel::kills {
namespace {

// Of the client's calls alone: what the device says to itself may take longer on a busy machine.
constexpr char kCallLimit[] = "ORVEL_CALL_TIMEOUT_MS=1000";

}  // namespace

ClientProcess::ClientProcess(const std::filesystem::path& program, const std::filesystem::path& directory,
                             std::string name)
    : m_name(std::move(name)),
      m_file(directory / (m_name + ".jsonl")),
      m_child({"/usr/bin/env", kCallLimit, program, m_name}, directory / (m_name + ".log"), SIGKILL),
      m_reading([this] { read(); }) {}

ClientProcess::~ClientProcess() {
  if (!m_child.ended()) m_child.signal(SIGKILL);
  m_reading.join();
}

void ClientProcess::read() {
  std::ofstream file(m_file);
  std::array<char, 65536> bytes{};
  std::string rest;
  for (ssize_t size = 0; (size = ::read(m_child.output(), bytes.data(), bytes.size())) > 0;) {
    rest.append(bytes.data(), static_cast<std::size_t>(size));
    const std::size_t whole = rest.rfind('\n') + 1;
    file.write(rest.data(), static_cast<std::streamsize>(whole));
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (std::size_t begin = 0; begin < whole;) {
      const std::size_t end = rest.find('\n', begin);
      learn(readRecord(rest.substr(begin, end - begin)));
      begin = end + 1;
    }
    rest.erase(0, whole);
    m_news.notify_all();
  }
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_over = true;
  m_news.notify_all();
}

void ClientProcess::learn(const Record& record) {
  if (record.what == "ready") m_ready = true;
  if (record.what == "bound") m_bound[record.who] = record.t;
  if (record.what == "rebound") m_rebound[record.who] = record.t;
  if (record.what == "gaveup") m_gaveUp.insert(record.who);
  if (record.what == "register") m_registrations[record.id].push_back(record);
  if (record.what == "registered") {
    ++m_registered;
    for (const Record& key : m_registrations[record.id]) m_kept[key.who] += record.ok ? 1 : 0;
  }
  if (record.what == "notice") {
    for (const Record& key : m_registrations[record.id]) m_told[key.key] = record.value;
  }
}

template <typename Happened>
void ClientProcess::awaitNews(const std::string& what, const Happened& happened) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  await(lock, m_news, m_name + " " + what, [&] {
    if (happened()) return true;
    if (m_over) throw Failure(m_name + " has ended unasked; its errors are in " + m_name + ".log");
    return false;
  });
}

void ClientProcess::awaitReady() {
  awaitNews("is not ready", [this] { return m_ready; });
}

void ClientProcess::awaitRebound(const std::string& service, std::int64_t killed) {
  awaitNews("has not bound " + service + " again", [&] {
    const std::int64_t bound = m_bound[service];
    return m_gaveUp.count(service) != 0 || (bound > killed && m_rebound[service] > bound);
  });
}

void ClientProcess::awaitGivenUp(const std::string& service) {
  awaitNews("has not given up on " + service, [&] { return m_gaveUp.count(service) != 0; });
}

void ClientProcess::awaitTold(const std::string& key, const std::string& value) {
  awaitNews("was not told " + value + " as " + key, [&] { return m_told[key] == value; });
}

void ClientProcess::awaitRegistered(std::size_t count) {
  awaitNews("does not return from registering", [&] { return m_registered >= count; });
}

bool ClientProcess::hasGivenUp() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return !m_gaveUp.empty();
}

std::size_t ClientProcess::keysWith(const std::string& service) const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_kept.find(service);
  return found == m_kept.end() ? 0 : found->second;
}

std::size_t ClientProcess::registrations() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_registered;
}

void ClientProcess::end() {
  m_child.closeInput();
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    await(lock, m_news, m_name + " does not shut down", [this] { return m_over; });
  }
  const int status = m_child.wait();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw Failure(m_name + " ended " +
                  (WIFEXITED(status) ? "with status " + std::to_string(WEXITSTATUS(status))
                                     : "by signal " + std::to_string(WTERMSIG(status))));
  }
}

}  // namespace orvel::kills
