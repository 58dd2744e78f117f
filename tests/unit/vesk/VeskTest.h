// What the tests of libvesk share: a peer, the process's runtime, what is called back and the log of it, and short
// names for what they do with all these.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Peer.h"
#include "support/Vesk.h"
#include "vesk/vesk.h"

namespace orvel::test {

using Entries = std::vector<std::string>;
using Words = std::vector<int>;

constexpr std::chrono::seconds kPatience(15);
constexpr unsigned kLongestCase =
    45;  // seconds; what still waits for a thread by then hangs, and SIGALRM ends the program

// For what nothing announces; false when it does not come about within a generous limit.
template <typename Condition>
bool eventually(Condition condition) {
  const auto limit = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::yield();
  }
  return true;
}

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

  // For what else a test counts and waits for; both run what they are given under the log's lock.
  template <typename Step>
  void change(Step step) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    step();
    m_changed.notify_all();
  }
  template <typename Condition>
  bool wait(Condition condition) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, condition);
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

  int add(int count) {
    if (on_change) on_change();
    m_log.change([&] { m_count += count; });
    if (throws) throw std::runtime_error("thrown while counting references");
    return 0;
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

// Something that libvesk calls back: it logs what it hears, then runs `then` with the number that came along.
struct Listener {
  Listener(Log& the_log, std::string the_name, std::function<void(int)> what_then)
      : log(the_log), name(std::move(the_name)), then(std::move(what_then)), references(the_log) {}
  Listener(const Listener&) = delete;  // libvesk knows its address
  Listener& operator=(const Listener&) = delete;

  void hear(std::string what, int number = 0) {
    thread = std::this_thread::get_id();
    log.add(std::move(what));
    if (then) then(number);
  }

  Log& log;
  const std::string name;
  std::function<void(int)> then;
  References references;
  std::thread::id thread;  // where it heard last
  vesk_handle handle{};    // that it was given last
};

// An endpoint that logs "<name> <number>" and answers calls with the number plus 100.
struct Inbox : Listener {
  using Listener::Listener;

  static Inbox& self(vesk_endpoint* endpoint) { return *static_cast<Inbox*>(endpoint->context); }
  static int call_oneway(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer* request) {
    const int number = vesk_read_i32(request);
    self(endpoint).hear(self(endpoint).name + ' ' + std::to_string(number), number);
    return 0;
  }
  static int call(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer* request, vesk_payload* reply) {
    const int number = vesk_read_i32(request);
    self(endpoint).hear(self(endpoint).name + ' ' + std::to_string(number), number);
    return vesk_write_i32(reply, number + 100);
  }
  static int acquire(void*, vesk_endpoint* endpoint) { return self(endpoint).references.add(1); }
  static int release(void*, vesk_endpoint* endpoint) { return self(endpoint).references.add(-1); }
  static constexpr vesk_endpoint_fn kFunctions{call, call_oneway, acquire, release};

  vesk_endpoint endpoint{&kFunctions, this};
};

// A death callback that logs "<name> died".
struct Mourner : Listener {
  using Listener::Listener;

  static Mourner& self(vesk_death_callback* linked) { return *static_cast<Mourner*>(linked->context); }
  static void on_death(void*, vesk_death_callback* linked, vesk_handle* dead) {
    self(linked).handle = *dead;
    self(linked).hear(self(linked).name + " died");
  }
  static void acquire(vesk_death_callback* linked) { self(linked).references.add(1); }
  static void release(vesk_death_callback* linked) { self(linked).references.add(-1); }

  vesk_death_callback callback{on_death, acquire, release, this};
};

// A bind callback that logs "bound <name>".
struct Bind : Listener {
  using Listener::Listener;

  static void bound(void*, void* context, const char*, vesk_handle handle) {
    auto& bind = *static_cast<Bind*>(context);
    bind.handle = handle;
    bind.hear("bound " + bind.name);
  }
};

class VeskTest : public testing::Test {
 protected:
  struct Answer {
    int error;
    Words words;
  };

  VeskTest() {
    ::alarm(kLongestCase);
    EXPECT_EQ(vesk_get_runtime(&m_runtime), 0);
  }
  // Ends every connection, so that nothing is called back on any more once the members go.
  ~VeskTest() override {
    for (Inbox& inbox : m_inboxes) inbox.references.on_change = {};
    for (const Bind& bind : m_binds) unbind(bind.handle);
    for (const vesk_handle& handle : m_handles) unbind(handle);
    vesk_shutdown(m_runtime);
    ::alarm(0);
  }

  Inbox& new_inbox(const char* name, std::function<void(int)> then = {}) {
    return m_inboxes.emplace_back(m_log, name, std::move(then));
  }
  Mourner& new_mourner(const char* name, std::function<void(int)> then = {}) {
    return m_mourners.emplace_back(m_log, name, std::move(then));
  }
  Bind& new_bind(const char* name, std::function<void(int)> then = {}) {
    return m_binds.emplace_back(m_log, name, std::move(then));
  }

  vesk_handle lookup(const char* name) {
    vesk_handle handle{};
    EXPECT_EQ(vesk_binder_servicemanager_get(m_runtime, name, &handle), 0) << name;
    return m_handles.emplace_back(handle);
  }
  vesk_handle lookup() { return lookup(m_peer.name()); }

  int bind(const char* name, Bind& context) { return vesk_service_bind(m_runtime, name, Bind::bound, &context); }
  bool valid(vesk_handle handle) { return vesk_handle_is_valid(m_runtime, &handle) != 0; }
  int acquire(vesk_handle handle) { return vesk_handle_acquire(m_runtime, &handle); }
  int release(vesk_handle handle) { return vesk_handle_release(m_runtime, &handle); }
  int unbind(vesk_handle handle) { return vesk_service_unbind(m_runtime, &handle); }
  // The handle that these are given is gone when they return, as that of any caller may be.
  int link(vesk_handle handle, Mourner& mourner) {
    return vesk_handle_link_to_death(m_runtime, &handle, &mourner.callback);
  }
  int unlink(vesk_handle handle, Mourner& mourner) {
    return vesk_handle_unlink_to_death(m_runtime, &handle, &mourner.callback);
  }

  Answer call(vesk_handle handle, unsigned code, int number = 0, const char* name = nullptr,
              vesk_endpoint* endpoint = nullptr) {
    const PayloadPtr request(vesk_payload_alloc());
    if (endpoint != nullptr) vesk_write_endpoint(request.get(), endpoint);
    vesk_write_i32(request.get(), number);
    if (name != nullptr) vesk_write_utf16_cstring(request.get(), name);
    const BufferPtr reply(vesk_buffer_alloc());
    Answer answer{vesk_call(m_runtime, &handle, code, request.get(), reply.get()), {}};
    while (answer.error == 0 && vesk_buffer_remaining(reply.get()) > 0) {
      answer.words.push_back(vesk_read_i32(reply.get()));
    }
    vesk_reply_done(m_runtime, reply.get());
    return answer;
  }
  // Whether the peer says that it is the same reference as the one that it got before.
  bool keep(vesk_handle handle, Inbox& inbox) {
    const Answer answer = call(handle, kKeep, 0, nullptr, &inbox.endpoint);
    EXPECT_EQ(answer.error, 0);
    return answer.words == Words{1};
  }
  int publish(const char* name, Inbox& inbox) { return vesk_service_register(m_runtime, name, &inbox.endpoint); }
  // A call that the peer has taken and does not answer.
  std::future<int> hanging_call(vesk_handle handle, vesk_endpoint* endpoint = nullptr) {
    auto result = std::async(std::launch::async,
                             [this, handle, endpoint] { return call(handle, kHang, 0, nullptr, endpoint).error; });
    m_peer.wait_for_hanging_call();
    return result;
  }

  Log m_log;
  Peer m_peer{"peer"};
  void* m_runtime = nullptr;
  std::deque<Inbox> m_inboxes;
  std::deque<Mourner> m_mourners;
  std::deque<Bind> m_binds;
  std::vector<vesk_handle> m_handles;
};

}  // namespace orvel::test
