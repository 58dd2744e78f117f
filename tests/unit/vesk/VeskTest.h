// What the tests of libvesk share: a peer, the process's runtime, and short names for what they do with both.
#pragma once

#include <deque>
#include <functional>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Bytes.h"
#include "support/Callbacks.h"
#include "support/Peer.h"
#include "vesk/vesk.h"

namespace orvel::test {

using Entries = std::vector<std::string>;
using Words = std::vector<int>;

// A bind callback's context: logs "bound <name>", then runs `then`.
struct Bind {
  explicit Bind(Log& the_log, std::string the_name, std::function<void()> what_then = {})
      : log(the_log), name(std::move(the_name)), then(std::move(what_then)) {}

  static void bound(void*, void* context, const char*, vesk_handle handle) {
    auto& bind = *static_cast<Bind*>(context);
    bind.handle = handle;
    bind.log.add("bound " + bind.name);
    if (bind.then) bind.then();
  }

  Log& log;
  const std::string name;
  const std::function<void()> then;
  vesk_handle handle{};
};

class VeskTest : public testing::Test {
 protected:
  struct Answer {
    int error;
    Words words;
  };

  VeskTest() { EXPECT_EQ(vesk_get_runtime(&m_runtime), 0); }
  // Ends every connection, so that nothing is called back on any more once the members go.
  ~VeskTest() override {
    for (Inbox& inbox : m_inboxes) inbox.references.on_change = {};
    for (const Bind& bind : m_binds) unbind(bind.handle);
    for (const vesk_handle& handle : m_handles) unbind(handle);
    vesk_shutdown(m_runtime);
  }

  Inbox& new_inbox(const char* name, std::function<void(int)> then = {}) {
    return m_inboxes.emplace_back(m_log, name, std::move(then));
  }
  Mourner& new_mourner(const char* name, std::function<void()> then = {}) {
    return m_mourners.emplace_back(m_log, name, std::move(then));
  }
  Bind& new_bind(const char* name, std::function<void()> then = {}) {
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
  std::future<int> hanging_call(vesk_handle handle) {
    auto result = std::async(std::launch::async, [this, handle] { return call(handle, kHang).error; });
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
