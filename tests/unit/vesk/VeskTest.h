// What the tests of libvesk share: a peer, the process's runtime, what is called back and the log of it, and short
// names for what they do with all these.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
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

using Lines = std::vector<std::string>;
using Numbers = std::vector<int>;

constexpr unsigned kLongestCase = 45;  // seconds; SIGALRM ends a program that hangs

// For what nothing announces; false when it does not come about within a generous limit.
template <typename Condition>
bool eventually(Condition condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::yield();
  }
  return true;
}

// What happened, in order.
class Log {
 public:
  void add(std::string line) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(std::move(line));
  }
  Lines now() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }
  // The lines once there are `count`, or those that there are when that takes too long.
  Lines wait_for(std::size_t count) {
    eventually([&] {
      const std::lock_guard<std::mutex> lock(m_mutex);
      return m_lines.size() >= count;
    });
    return now();
  }

 private:
  std::mutex m_mutex;
  Lines m_lines;
};

// Holds a callback until it may leave.
class Gate {
 public:
  void pass() {
    m_entered.set_value();
    m_open.get_future().wait();
  }
  void wait_for_callback() { m_entered.get_future().wait(); }
  void open() { m_open.set_value(); }

 private:
  std::promise<void> m_entered, m_open;
};

// What libvesk calls back, in each of the three forms. It logs what it hears: "<name> 5" as an endpoint, which answers
// with the number plus 100, "<name> died" as a death callback, and "bound <name>" as the context of a bind. Then it
// runs `then` with the number.
struct Listener {
  Listener(Log& the_log, std::string the_name, std::function<void(int)> what_then)
      : log(the_log), name(std::move(the_name)), then(std::move(what_then)) {}

  static Listener& of(const vesk_endpoint* endpoint) { return *static_cast<Listener*>(endpoint->context); }
  static Listener& of(const vesk_death_callback* linked) { return *static_cast<Listener*>(linked->context); }

  int hear(std::string what, int number = 0) {
    thread = std::this_thread::get_id();
    log.add(std::move(what));
    if (then) then(number);
    return number + 100;
  }
  int hear(vesk_buffer* request) {
    const int number = vesk_read_i32(request);
    return hear(name + ' ' + std::to_string(number), number);
  }
  int count(int change) {
    if (before_count) before_count();
    references += change;
    return 0;
  }
  bool has(int expected) {
    return eventually([&] { return references == expected; });
  }

  static int call_oneway(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer* request) {
    of(endpoint).hear(request);
    return 0;
  }
  static int call(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer* request, vesk_payload* reply) {
    return vesk_write_i32(reply, of(endpoint).hear(request));
  }
  static void on_death(void*, vesk_death_callback* linked, vesk_handle* dead) {
    of(linked).handle = *dead;
    of(linked).hear(of(linked).name + " died");
  }
  static void bound(void*, void* context, const char*, vesk_handle handle) {
    auto& self = *static_cast<Listener*>(context);
    self.handle = handle;
    self.hear("bound " + self.name);
  }
  static int acquire(void*, vesk_endpoint* endpoint) { return of(endpoint).count(1); }
  static int release(void*, vesk_endpoint* endpoint) { return of(endpoint).count(-1); }
  static constexpr vesk_endpoint_fn kFunctions{call, call_oneway, acquire, release};

  Log& log;
  const std::string name;
  std::function<void(int)> then;
  std::function<void()> before_count;  // before every change of the references
  std::atomic<int> references{0};      // that libvesk holds
  std::thread::id thread;              // where it heard last
  vesk_handle handle{};                // that it was given last
  vesk_endpoint endpoint{&kFunctions, this};
  vesk_death_callback death{on_death, [](vesk_death_callback* linked) { of(linked).count(1); },
                            [](vesk_death_callback* linked) { of(linked).count(-1); }, this};
};

class VeskTest : public testing::Test {
 protected:
  struct Answer {
    int error;
    Numbers numbers;
  };

  VeskTest() {
    ::alarm(kLongestCase);
    EXPECT_EQ(vesk_get_runtime(&m_runtime), 0);
    m_handle = lookup();
  }
  // Ends every connection, so that nothing is called back on any more once the members go.
  ~VeskTest() override {
    for (Listener& listener : m_listeners) {
      listener.before_count = {};
      unbind(listener.handle);
    }
    for (const vesk_handle& handle : m_handles) unbind(handle);
    vesk_shutdown(m_runtime);
    ::alarm(0);
  }

  Listener& listener(const char* name, std::function<void(int)> then = {}) {
    return m_listeners.emplace_back(m_log, name, std::move(then));
  }
  vesk_handle lookup(const char* name) {
    vesk_handle handle{};
    EXPECT_EQ(vesk_binder_servicemanager_get(m_runtime, name, &handle), 0) << name;
    return m_handles.emplace_back(handle);
  }
  vesk_handle lookup() { return lookup(m_peer.name()); }

  int bind(const char* name, Listener& context) {
    return vesk_service_bind(m_runtime, name, Listener::bound, &context);
  }
  int publish(const char* name, Listener& listener) {
    return vesk_service_register(m_runtime, name, &listener.endpoint);
  }
  bool valid(vesk_handle handle) { return vesk_handle_is_valid(m_runtime, &handle) != 0; }
  int acquire(vesk_handle handle) { return vesk_handle_acquire(m_runtime, &handle); }
  int release(vesk_handle handle) { return vesk_handle_release(m_runtime, &handle); }
  int unbind(vesk_handle handle) { return vesk_service_unbind(m_runtime, &handle); }
  // The handle that these are given is gone when they return, as that of any caller may be.
  int link(vesk_handle handle, Listener& listener) {
    return vesk_handle_link_to_death(m_runtime, &handle, &listener.death);
  }
  int unlink(vesk_handle handle, Listener& listener) {
    return vesk_handle_unlink_to_death(m_runtime, &handle, &listener.death);
  }

  Answer call(vesk_handle handle, unsigned code, int number = 0, const char* name = nullptr,
              Listener* along = nullptr) {
    const PayloadPtr request(vesk_payload_alloc());
    if (along != nullptr) vesk_write_endpoint(request.get(), &along->endpoint);
    vesk_write_i32(request.get(), number);
    if (name != nullptr) vesk_write_utf16_cstring(request.get(), name);
    const BufferPtr reply(vesk_buffer_alloc());
    Answer answer{vesk_call(m_runtime, &handle, code, request.get(), reply.get()), {}};
    while (answer.error == 0 && vesk_buffer_remaining(reply.get()) > 0) {
      answer.numbers.push_back(vesk_read_i32(reply.get()));
    }
    vesk_reply_done(m_runtime, reply.get());
    return answer;
  }
  // Whether the peer says that it is the same reference as the one that it got before.
  bool keep(vesk_handle handle, Listener& inbox) {
    const Answer answer = call(handle, kKeep, 0, nullptr, &inbox);
    EXPECT_EQ(answer.error, 0);
    return answer.numbers == Numbers{1};
  }
  // A call that the peer has taken and does not answer.
  std::future<int> hanging_call(vesk_handle handle, Listener* along = nullptr) {
    auto result = std::async(std::launch::async, [=] { return call(handle, kHang, 0, nullptr, along).error; });
    m_peer.wait_for_hanging_call();
    return result;
  }
  // A failure that is known at once, not one of a call whose time has passed.
  static bool fails_at_once(int error) { return error != 0 && error != -ETIMEDOUT; }

  Log m_log;
  Peer m_peer{"peer"};
  void* m_runtime = nullptr;
  vesk_handle m_handle{};  // of one connection to the peer; others come from lookup()
  std::deque<Listener> m_listeners;
  std::vector<vesk_handle> m_handles;
};

}  // namespace orvel::test
