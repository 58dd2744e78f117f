// What a test hands to libvesk to be called back on, and one log of what arrived.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vesk/vesk.h"

namespace orvel::test {

// What happened, in order, and a way to wait for it. A wait that is not met within its generous limit returns as it is.
class Log {
 public:
  void add(std::string entry) {
    change([&] { m_entries.push_back(std::move(entry)); });
  }
  // The entries once there are `count`.
  std::vector<std::string> wait_for(std::size_t count) {
    wait([&] { return m_entries.size() >= count; });
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
  }

  // For what else the tests count: both run `step` under the log's lock.
  template <typename Step>
  void change(Step step) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    step();
    m_changed.notify_all();
  }
  template <typename Condition>
  bool wait(Condition condition) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(30), condition);
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::string> m_entries;
};

// References that libvesk holds to something.
class References {
 public:
  explicit References(Log& log) : m_log(log) {}

  void add(int count) {
    if (on_change) on_change();
    m_log.change([&] { m_count += count; });
    if (throws) throw std::runtime_error("thrown while counting references");
  }
  [[nodiscard]] int now() const {
    int count = 0;
    m_log.change([&] { count = m_count; });
    return count;
  }
  bool wait_for(int count) {
    return m_log.wait([&] { return m_count == count; });
  }

  // What happens besides, before the count changes and after.
  std::function<void()> on_change;
  bool throws = false;

 private:
  Log& m_log;
  int m_count = 0;
};

// An endpoint that logs "<name> <number>" for each message, then runs `then`, and answers calls with the number plus
// 100.
struct Inbox {
  Inbox(Log& the_log, std::string the_name, std::function<void(int)> what_then = {})
      : log(the_log), name(std::move(the_name)), then(std::move(what_then)), references(the_log) {}

  static Inbox& self(vesk_endpoint* endpoint) { return *static_cast<Inbox*>(endpoint->context); }
  static int take(vesk_endpoint* endpoint, vesk_buffer* request) {
    Inbox& inbox = self(endpoint);
    const int number = vesk_read_i32(request);
    inbox.thread = std::this_thread::get_id();
    inbox.log.add(inbox.name + ' ' + std::to_string(number));
    if (inbox.then) inbox.then(number);
    return number;
  }
  static int call(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer* request, vesk_payload* reply) {
    return vesk_write_i32(reply, take(endpoint, request) + 100);
  }
  static int call_oneway(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer* request) {
    take(endpoint, request);
    return 0;
  }
  static int acquire(void*, vesk_endpoint* endpoint) {
    self(endpoint).references.add(1);
    return 0;
  }
  static int release(void*, vesk_endpoint* endpoint) {
    self(endpoint).references.add(-1);
    return 0;
  }
  static constexpr vesk_endpoint_fn kFunctions{call, call_oneway, acquire, release};

  Log& log;
  const std::string name;
  std::function<void(int)> then;
  References references;
  std::thread::id thread;  // of the last message
  vesk_endpoint endpoint{&kFunctions, this};
};

// A death callback that logs "<name> died", then runs `then`.
struct Mourner {
  Mourner(Log& the_log, std::string the_name, std::function<void()> what_then = {})
      : log(the_log), name(std::move(the_name)), then(std::move(what_then)), references(the_log) {}

  static Mourner& self(vesk_death_callback* callback) { return *static_cast<Mourner*>(callback->context); }
  static void mourn(void*, vesk_death_callback* callback, vesk_handle* handle) {
    Mourner& mourner = self(callback);
    mourner.thread = std::this_thread::get_id();
    mourner.handle = *handle;
    mourner.log.add(mourner.name + " died");
    if (mourner.then) mourner.then();
  }

  Log& log;
  const std::string name;
  std::function<void()> then;
  References references;
  std::thread::id thread;
  vesk_handle handle{};  // what the notice named
  vesk_death_callback callback{
      mourn,
      [](vesk_death_callback* linked) { self(linked).references.add(1); },
      [](vesk_death_callback* linked) { self(linked).references.add(-1); },
      this,
  };
};

}  // namespace orvel::test
