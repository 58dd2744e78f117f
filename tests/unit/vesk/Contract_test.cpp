// What callers of libvesk rely on. One source, two programs: linked with InprocessVesk and with the host runtime, so
// that what the unit tests stand on cannot drift from the real thing.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VeskTest.h"
#include "support/Peer.h"
#include "support/RunLoop.h"
#include "support/Vesk.h"
#include "vesk/vesk.h"

namespace orvel::test {
namespace {

using Contract = VeskTest;

// ---- Runtime ----

// Constructed before the runtime is used and so destroyed after it, in the same way as a static client.
struct UsesRuntimeAtExit {
  ~UsesRuntimeAtExit() {
    if (runtime == nullptr) return;
    vesk_shutdown(runtime);
    if (vesk_run_loop(runtime) != 0) std::_Exit(99);
  }
  void* runtime = nullptr;
} at_exit;

TEST_F(Contract, RuntimeIsTheSameAfterAShutdownAndInStaticDestructors) {
  at_exit.runtime = m_runtime;
  vesk_shutdown(m_runtime);
  void* again = nullptr;
  EXPECT_EQ(vesk_get_runtime(&again), 0);
  EXPECT_EQ(again, m_runtime);
}

TEST_F(Contract, ShutdownEndsTheLoopAfterTheCallbackInProgressAndTheRestWaits) {
  std::promise<void> entered, leave;
  Inbox& inbox = new_inbox("message", [&](int number) {
    if (number > 0) return;
    entered.set_value();
    leave.get_future().wait();
  });
  const vesk_handle peer = lookup();
  keep(peer, inbox);
  call(peer, kSend, 2);
  std::thread loop([&] {
    EXPECT_EQ(vesk_run_loop(m_runtime), 0);
    m_log.add("returned");
  });
  entered.get_future().wait();
  EXPECT_NE(vesk_run_loop(m_runtime), 0) << "one thread at a time";
  EXPECT_EQ(vesk_shutdown(m_runtime), 0);
  leave.set_value();
  loop.join();
  EXPECT_EQ(vesk_run_loop(m_runtime), 0) << "a loop entered later returns at once";
  EXPECT_EQ(m_log.wait_for(2), (Entries{"message 0", "returned"}));
  EXPECT_EQ(vesk_get_runtime(&m_runtime), 0);
  const RunLoop again(m_runtime);
  EXPECT_EQ(m_log.wait_for(3), (Entries{"message 0", "returned", "message 1"}));
}

TEST_F(Contract, ShutdownFailsCallsInProgressAndNewOnesAndNothingElse) {
  Inbox& inbox = new_inbox("message");
  Mourner& mourner = new_mourner("peer");
  Bind& bound = new_bind("peer");
  const vesk_handle peer = lookup();
  std::future<int> hanging = hanging_call(lookup());
  vesk_shutdown(m_runtime);
  const int error = hanging.get();
  EXPECT_TRUE(error != 0 && error != -ETIMEDOUT) << error;
  EXPECT_NE(call(peer, kEcho).error, 0);

  EXPECT_TRUE(valid(peer));
  EXPECT_EQ(acquire(peer), 0);
  EXPECT_EQ(link(peer, mourner), 0);
  EXPECT_EQ(unlink(peer, mourner), 0);
  EXPECT_EQ(release(peer), 0);
  EXPECT_EQ(unbind(peer), 0);
  EXPECT_FALSE(valid(peer));
  EXPECT_EQ(bind(m_peer.name(), bound), 0);
  EXPECT_TRUE(valid(bound.handle));
  EXPECT_EQ(publish("contract.name", inbox), 0);
  EXPECT_EQ(vesk_shutdown(m_runtime), 0);
  EXPECT_EQ(inbox.references.now(), 0);

  vesk_get_runtime(&m_runtime);
  EXPECT_EQ(call(bound.handle, kEcho, 5).words, Words{5});
}

TEST_F(Contract, ShutdownWithdrawsNamesAndDropsPendingBinds) {
  Inbox& inbox = new_inbox("message");
  Bind& dropped = new_bind("dropped");
  Bind& kept = new_bind("kept");
  Bind& marker = new_bind("marker");
  EXPECT_EQ(publish("contract.name", inbox), 0);
  EXPECT_EQ(bind("late", dropped), 0);
  vesk_shutdown(m_runtime);
  EXPECT_EQ(inbox.references.now(), 0);

  vesk_get_runtime(&m_runtime);
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(lookup(), kAskName, 1, "contract.name").words, Words{1}) << "nobody serves it any more";
  bind("late", kept);
  bind("later", marker);
  const Peer late("late");
  m_log.wait_for(1);
  const Peer later("later");
  EXPECT_EQ(m_log.wait_for(2), (Entries{"bound kept", "bound marker"}));
}

TEST_F(Contract, ShutdownWaitsForABindCallbackThatRuns) {
  const vesk_handle peer = lookup();
  std::promise<void> entered, leave;
  std::atomic<bool> left{false};
  Bind& slow = new_bind("slow", [&](int) {
    entered.set_value();
    leave.get_future().wait();
    left = true;
  });
  std::thread binder([&] { bind(m_peer.name(), slow); });
  entered.get_future().wait();
  std::thread stopper([&] {
    vesk_shutdown(m_runtime);
    EXPECT_TRUE(left);
  });
  EXPECT_TRUE(eventually([&] { return call(peer, kEcho).error != 0; }));  // the shutdown has begun
  leave.set_value();
  stopper.join();
  binder.join();

  Bind& stopping = new_bind("stopping", [&](int) { vesk_shutdown(m_runtime); });
  bind(m_peer.name(), stopping);  // returns: from inside a bind callback there is nothing to wait for
  EXPECT_EQ(m_log.wait_for(2), (Entries{"bound slow", "bound stopping"}));
}

// ---- Threads and order ----

TEST_F(Contract, MessagesThenTheDeathNoticeInOrderOnTheRunLoopThread) {
  Inbox& inbox = new_inbox("message");
  Mourner& mourner = new_mourner("peer");
  const vesk_handle peer = lookup();
  acquire(peer);
  keep(peer, inbox);
  link(peer, mourner);
  call(peer, kSend, 3);
  m_peer.kill();
  EXPECT_EQ(m_log.wait_for(0), Entries{}) << "before the loop runs everything waits";
  const RunLoop loop(m_runtime);
  EXPECT_EQ(m_log.wait_for(4), (Entries{"message 0", "message 1", "message 2", "peer died"}));
  EXPECT_EQ(inbox.thread, loop.thread());
  EXPECT_EQ(mourner.thread, loop.thread());
  EXPECT_TRUE(inbox.references.wait_for(0)) << "what a dead peer held is released, whoever still has the handle";
  release(peer);
}

TEST_F(Contract, TheRunLoopThreadItselfBindsCallsAndSendsEndpoints) {
  Peer other("other");
  Inbox& inbox = new_inbox("message");
  Bind& rebind = new_bind("other");
  Mourner& mourner = new_mourner("peer", [&](int) {
    EXPECT_EQ(bind(other.name(), rebind), 0);
    keep(rebind.handle, inbox);
    EXPECT_EQ(call(rebind.handle, kSend, 1).error, 0);
  });
  link(lookup(), mourner);
  const RunLoop loop(m_runtime);
  m_peer.kill();
  EXPECT_EQ(m_log.wait_for(3), (Entries{"peer died", "bound other", "message 0"}));
  EXPECT_EQ(unbind(rebind.handle), 0);
}

TEST_F(Contract, CallbacksRunUnderNoLockAndWhatTheyThrowStopsNothing) {
  const Peer other("other");
  const vesk_handle alive = lookup(other.name());
  const auto use = [&] {
    EXPECT_EQ(call(alive, kEcho).error, 0);
    EXPECT_TRUE(valid(alive));
    vesk_handle more{};
    EXPECT_EQ(vesk_binder_servicemanager_get(m_runtime, other.name(), &more), 0);
    EXPECT_EQ(unbind(more), 0);
  };
  const auto use_and_throw = [&](int number) {
    use();
    if (number != 7) throw std::runtime_error("thrown by a callback");
  };
  Inbox& inbox = new_inbox("message", use_and_throw);
  Mourner& mourner = new_mourner("peer", use_and_throw);
  Mourner& next = new_mourner("next");
  Mourner& unlinked = new_mourner("unlinked");
  Bind& bound = new_bind("peer", use_and_throw);
  for (References* references : {&inbox.references, &mourner.references, &unlinked.references}) {
    references->on_change = use;
    references->throws = true;
  }
  const RunLoop loop(m_runtime);
  EXPECT_EQ(bind(m_peer.name(), bound), 0);
  keep(bound.handle, inbox);
  EXPECT_EQ(publish("contract.name", inbox), 0);
  EXPECT_EQ(publish("contract.name", inbox), 0);
  EXPECT_EQ(call(bound.handle, kSend, 1).error, 0);
  EXPECT_EQ(call(bound.handle, kAsk, 1).words, Words{1}) << "a two-way call fails";
  EXPECT_EQ(call(bound.handle, kAsk, 7).words, (Words{0, 107})) << "and the next does not";
  for (Mourner* each : {&mourner, &next, &unlinked}) link(bound.handle, *each);
  unlink(bound.handle, unlinked);
  m_peer.kill();
  EXPECT_EQ(m_log.wait_for(6),
            (Entries{"bound peer", "message 0", "message 1", "message 7", "peer died", "next died"}));
  EXPECT_TRUE(inbox.references.wait_for(1)) << "that of the name";
  EXPECT_TRUE(mourner.references.wait_for(0));
  inbox.references.on_change = {};  // what it calls fails once the loop is shut down
}

// ---- Binding and handles ----

TEST_F(Contract, BindsWhatRunsAtOnceAndTheRestWhenItAppears) {
  Bind& now = new_bind("now");
  Bind& late = new_bind("late");
  Bind& again = new_bind("again");
  EXPECT_EQ(bind("late", late), 0);
  EXPECT_EQ(bind("late", again), 0);
  EXPECT_EQ(bind(m_peer.name(), now), 0);
  EXPECT_EQ(m_log.wait_for(0), Entries{"bound now"}) << "before vesk_service_bind returned";
  vesk_handle none = vesk_invalid_handle();
  EXPECT_NE(vesk_binder_servicemanager_get(m_runtime, "late", &none), 0) << "answers at once";
  const Peer appeared("late");
  Entries bound = m_log.wait_for(3);
  std::sort(bound.begin() + 1, bound.end());  // those that wait for one name are told in any order
  EXPECT_EQ(bound, (Entries{"bound now", "bound again", "bound late"}));
  EXPECT_EQ(unbind(late.handle), 0);
  EXPECT_EQ(call(again.handle, kEcho, 3).words, Words{3}) << "each has a reference";
  EXPECT_EQ(unbind(again.handle), 0);
  EXPECT_FALSE(valid(again.handle));
}

TEST_F(Contract, OnlyHandlesWithReferencesAreValidAndNoneComesBack) {
  std::set<std::pair<unsigned, unsigned>> used;
  for (const vesk_handle handle : {vesk_handle{}, vesk_invalid_handle(), vesk_handle{{12345, 67890}}}) {
    EXPECT_FALSE(valid(handle)) << handle.words[0] << ' ' << handle.words[1];
  }
  for (int n = 0; n < 5; ++n) {
    const vesk_handle handle = lookup();
    EXPECT_TRUE(valid(handle));
    EXPECT_TRUE(used.emplace(handle.words[0], handle.words[1]).second);
    EXPECT_EQ(acquire(handle), 0);
    EXPECT_EQ(unbind(handle), 0);
    EXPECT_TRUE(valid(handle)) << "one reference is left";
    EXPECT_EQ(call(handle, kEcho, n).words, Words{n});
    EXPECT_EQ(release(handle), 0);
    EXPECT_FALSE(valid(handle));
    EXPECT_NE(call(handle, kEcho).error, 0);
  }
}

TEST_F(Contract, TheLookupsReferenceEndsWithTheService) {
  const vesk_handle peer = lookup();
  Mourner& mourner = new_mourner("peer");
  acquire(peer);
  link(peer, mourner);
  const RunLoop loop(m_runtime);
  m_peer.kill();
  m_log.wait_for(1);
  EXPECT_TRUE(mourner.references.wait_for(0));
  EXPECT_TRUE(valid(peer));
  release(peer);
  EXPECT_TRUE(eventually([&] { return !valid(peer); })) << "without vesk_service_unbind";
  release(peer), unbind(peer);  // harmless
}

TEST_F(Contract, NoDeathFallsBetweenALookupAndItsLink) {
  Mourner& marker = new_mourner("marker");
  std::vector<vesk_handle> late(8);
  for (vesk_handle& handle : late) handle = lookup();
  link(lookup(), marker);
  const RunLoop loop(m_runtime);
  m_peer.kill();
  m_log.wait_for(1);  // most of the other connections have ended by now as well
  Entries heard{"marker died"};
  for (const vesk_handle handle : late) {
    Mourner& mourner = new_mourner("late");
    ASSERT_EQ(link(handle, mourner), 0);
    heard.emplace_back("late died");
    EXPECT_EQ(m_log.wait_for(heard.size()), heard);
    EXPECT_EQ(mourner.handle.words[0], handle.words[0]);
    EXPECT_EQ(mourner.handle.words[1], handle.words[1]);
    EXPECT_TRUE(mourner.references.wait_for(0));
  }
}

TEST_F(Contract, OnlyALinkKeepsAReferenceToItsCallback) {
  const vesk_handle peer = lookup();
  Mourner& linked = new_mourner("linked");
  Mourner& other = new_mourner("other");
  EXPECT_NE(link(vesk_invalid_handle(), linked), 0);
  EXPECT_EQ(linked.references.now(), 0);
  EXPECT_EQ(link(peer, linked), 0);
  EXPECT_EQ(linked.references.now(), 1);
  unlink(peer, other);
  EXPECT_EQ(other.references.now(), 0) << "unlinking what is not linked";
  unlink(peer, linked);
  unlink(peer, linked);
  EXPECT_EQ(linked.references.now(), 0);
  link(peer, linked);
  unbind(peer);
  EXPECT_EQ(linked.references.now(), 0) << "the links end with the handle";
}

TEST_F(Contract, AnUnlinkedCallbackHearsNothingAlsoWhenItsNoticeIsQueued) {
  const vesk_handle peer = lookup();
  Mourner& before = new_mourner("before");
  Mourner& queued = new_mourner("queued");
  Mourner& marker = new_mourner("marker");
  Mourner& unlinker = new_mourner("unlinker", [&](int) { unlink(peer, queued); });
  for (Mourner* mourner : {&before, &before, &unlinker, &queued, &marker}) link(peer, *mourner);
  m_peer.kill();
  EXPECT_NE(call(peer, kEcho).error, 0);  // the death is known ...
  unlink(peer, before);                   // ... and its notice waits for the loop
  const RunLoop loop(m_runtime);
  EXPECT_EQ(m_log.wait_for(2), (Entries{"unlinker died", "marker died"}));
  for (Mourner* mourner : {&before, &unlinker, &queued, &marker}) EXPECT_TRUE(mourner->references.wait_for(0));
}

// ---- Calls ----

TEST_F(Contract, CallsOfADeadOrDyingServiceFailAtOnce) {
  const vesk_handle peer = lookup();
  std::future<int> hanging = hanging_call(lookup());
  m_peer.kill();
  const int error = hanging.get();
  EXPECT_TRUE(error != 0 && error != -ETIMEDOUT) << error;
  EXPECT_NE(call(peer, kEcho).error, 0);
  const Peer next("next");
  const int died = call(lookup(next.name()), kDie).error;
  EXPECT_TRUE(died != 0 && died != -ETIMEDOUT) << died;
}

TEST_F(Contract, ACallWhoseTimeIsOverFailsAloneAndItsLateAnswerIsDropped) {
  const vesk_handle peer = lookup();
  link(peer, new_mourner("peer"));
  Inbox& first = new_inbox("first");  // that the connection has ever carried
  Inbox& inbox = new_inbox("message");
  Inbox& last = new_inbox("last");
  const RunLoop loop(m_runtime);
  const auto run_late = [&](Inbox* along) {
    std::future<int> hanging = hanging_call(peer, along == nullptr ? nullptr : &along->endpoint);
    m_peer.pass_call_limit();
    EXPECT_EQ(hanging.get(), -ETIMEDOUT);
    EXPECT_EQ(along == nullptr ? 0 : along->references.now(), 0) << "what fails drops its endpoints";
  };
  run_late(&first);
  run_late(nullptr);
  EXPECT_FALSE(keep(peer, inbox)) << "the peer answers the other two before this one";
  EXPECT_EQ(call(peer, kAsk, 1).words, (Words{0, 101}));
  run_late(&last);
  EXPECT_EQ(call(peer, kEcho, 2).words, Words{2});
  EXPECT_EQ(call(peer, kAsk, 3).words, (Words{0, 103})) << "the endpoint that came late was taken back";
  EXPECT_EQ(inbox.references.now(), 1);
  EXPECT_EQ(m_log.wait_for(2), (Entries{"message 1", "message 3"}));
}

// ---- Endpoint references ----

TEST_F(Contract, AFailedCallDropsItsEndpointsAndAGoodOneHandsThemOver) {
  Inbox& inbox = new_inbox("message");
  {
    const PayloadPtr unsent(vesk_payload_alloc());
    EXPECT_EQ(vesk_write_endpoint(unsent.get(), &inbox.endpoint), 0);
    EXPECT_EQ(inbox.references.now(), 1) << "taken when written";
  }
  EXPECT_EQ(inbox.references.now(), 0) << "a payload that was never sent";
  const Peer doomed("doomed");
  const vesk_handle peer = lookup(), dying = lookup(doomed.name());
  const std::pair<vesk_handle, unsigned> failing[] = {
      {vesk_invalid_handle(), kKeep}, {peer, kFail}, {dying, kDie}, {dying, kKeep}};
  for (const auto& [handle, code] : failing) {
    EXPECT_NE(call(handle, code, 0, nullptr, &inbox.endpoint).error, 0);
    EXPECT_EQ(inbox.references.now(), 0) << code;
  }
  keep(peer, inbox);
  EXPECT_NE(call(peer, kFail, 0, nullptr, &inbox.endpoint).error, 0);
  EXPECT_EQ(inbox.references.now(), 1) << "the sending that succeeded still counts";
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(peer, kAsk, 5).words, (Words{0, 105}));
  call(peer, kLetGo);
  EXPECT_TRUE(inbox.references.wait_for(0));
}

TEST_F(Contract, LettingGoGivesBackNoMoreThanWasHeld) {
  Inbox& inbox = new_inbox("message");
  const vesk_handle peer = lookup();
  keep(peer, inbox);
  EXPECT_TRUE(keep(peer, inbox)) << "the same reference, counted twice";
  call(peer, kLetGo);
  call(peer, kLetGo);
  keep(peer, inbox);  // sent before this side, whose loop does not run yet, hears of the letting go
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(peer, kAsk, 6).words, (Words{0, 106}));
  call(peer, kLetGo);
  EXPECT_TRUE(inbox.references.wait_for(0));
}

TEST_F(Contract, TheLastReferenceToAHandleTakesItsExportsAlong) {
  for (const bool after_shutdown : {false, true}) {
    Inbox& inbox = new_inbox("message");
    const vesk_handle peer = lookup();
    keep(peer, inbox);
    if (after_shutdown) vesk_shutdown(m_runtime);
    unbind(peer);
    EXPECT_EQ(inbox.references.now(), 0) << "when vesk_service_unbind has returned";
  }
}

TEST_F(Contract, AnEndpointOutlivesItsCallbackWhateverIsReleasedMeanwhile) {
  std::promise<void> entered, leave;
  std::atomic<bool> left{false};
  const vesk_handle inner = lookup(), outer = lookup();
  Inbox& from_inside = new_inbox("inside");
  from_inside.then = [&](int) {
    unbind(inner);
    EXPECT_GT(from_inside.references.now(), 0);
  };
  Inbox& from_outside = new_inbox("outside");
  from_outside.then = [&](int) {
    entered.set_value();
    leave.get_future().wait();
    EXPECT_GT(from_outside.references.now(), 0);
    left = true;
  };
  keep(inner, from_inside);
  const RunLoop loop(m_runtime);
  call(inner, kSend, 1);
  EXPECT_TRUE(from_inside.references.wait_for(0));

  keep(outer, from_outside);
  call(outer, kSend, 1);
  entered.get_future().wait();
  std::thread releaser([&] {
    unbind(outer);
    EXPECT_TRUE(left && from_outside.references.now() == 0) << "released when vesk_service_unbind has returned";
  });
  EXPECT_TRUE(eventually([&] { return !valid(outer); }));
  leave.set_value();
  releaser.join();
}

TEST_F(Contract, PublishingANameAgainReplacesItsEndpoint) {
  std::promise<void> entered, leave;
  Inbox& first = new_inbox("first");
  first.then = [&](int) {
    entered.set_value();
    leave.get_future().wait();
    EXPECT_GT(first.references.now(), 0) << "while its callback is in progress";
  };
  Inbox& second = new_inbox("second");
  const vesk_handle peer = lookup();
  EXPECT_NE(publish(m_peer.name(), second), 0) << "a live process serves it";
  EXPECT_EQ(publish("contract.name", first), 0) << "and spoils no other name";
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(peer, kSendToName, 1, "contract.name").error, 0);
  entered.get_future().wait();
  EXPECT_EQ(publish("contract.name", second), 0);
  leave.set_value();
  EXPECT_EQ(call(peer, kAskName, 2, "contract.name").words, (Words{0, 102}));
  EXPECT_EQ(m_log.wait_for(2), (Entries{"first 1", "second 2"}));
  EXPECT_TRUE(first.references.wait_for(0));
  EXPECT_EQ(second.references.now(), 1);
}

// ---- Values ----

// The bytes of other values are those of the client library's tests.
TEST_F(Contract, ValuesHaveTheseBytesAndArriveWithThem) {
  const std::pair<void (*)(vesk_payload*), Bytes> rows[] = {
      {[](auto* payload) { vesk_write_i64(payload, 0x0102030405060708); }, Bytes().raw({8, 7, 6, 5, 4, 3, 2, 1})},
      {[](auto* payload) { vesk_write_array_length(payload, -1); }, Bytes().raw({0xFF, 0xFF, 0xFF, 0xFF})},
      {[](auto* payload) { vesk_write_utf16_cstring(payload, "\u20AC\U0001F600"); },
       Bytes().raw({3, 0, 0, 0, 0xAC, 0x20, 0x3D, 0xD8, 0, 0xDE, 0, 0})},
      {[](auto* payload) { vesk_write_utf16_cstring(payload, "\xFF\xC0z"); },
       Bytes().raw({3, 0, 0, 0, 0xFD, 0xFF, 0xFD, 0xFF, 'z', 0, 0, 0})},
      {[](auto* payload) {
         vesk_write_i32(payload, 0);
         vesk_write_i32(payload, 1);
         vesk_payload_set_position(payload, 0);
         vesk_write_i32(payload, 9);
       },
       Bytes().raw({9, 0, 0, 0, 1, 0, 0, 0})},
  };
  vesk_handle peer = lookup();
  for (const auto& [write, bytes] : rows) {
    const PayloadPtr payload(vesk_payload_alloc());
    write(payload.get());
    EXPECT_EQ(bytes_of(payload.get()), bytes);
    const BufferPtr reply(vesk_buffer_alloc());
    EXPECT_EQ(vesk_call(m_runtime, &peer, kEcho, payload.get(), reply.get()), 0);
    const PayloadPtr arrived(vesk_payload_alloc());
    while (vesk_buffer_remaining(reply.get()) > 0) vesk_write_i32(arrived.get(), vesk_read_i32(reply.get()));
    EXPECT_EQ(bytes_of(arrived.get()), bytes);
  }
}

TEST(Values, ReadingPastTheEndIsStickyAndGivesNothing) {
  unsigned length = 99;
  const BufferPtr whole = buffer_of(Bytes().i64(-3).f64(0.5).null().utf16("ab").i32(4));
  EXPECT_EQ(vesk_read_i64(whole.get()), -3);
  EXPECT_EQ(vesk_read_f64(whole.get()), 0.5);
  EXPECT_EQ(vesk_read_utf16_string(whole.get(), &length), nullptr) << "a null string";
  EXPECT_EQ(length, 0U);
  const std::uint16_t* text = vesk_read_utf16_string(whole.get(), &length);
  EXPECT_EQ(std::u16string(text, text + length + 1), std::u16string(u"ab\0", 3));
  EXPECT_EQ(vesk_buffer_last_error(whole.get()), 0);

  const BufferPtr damaged = buffer_of(Bytes().utf16("abc").cut(4).i32(0x40004));
  length = 99;
  EXPECT_EQ(vesk_read_i64(whole.get()), 0) << "only four bytes are left";
  EXPECT_EQ(vesk_read_utf16_string(damaged.get(), &length), nullptr) << "the terminator is not where it should be";
  EXPECT_EQ(length, 0U);
  for (vesk_buffer* buffer : {whole.get(), damaged.get()}) {
    EXPECT_NE(vesk_buffer_last_error(buffer), 0);
    EXPECT_EQ(vesk_read_i32(buffer), 0) << "although four bytes are left";
    EXPECT_EQ(vesk_read_array_length(buffer), 0);
    EXPECT_EQ(vesk_read_f64(buffer), 0);
  }
}

TEST(Values, AFailedWriteIsStickyAndNothingFollowsIt) {
  using Step = int (*)(vesk_payload*);
  const Step failing[] = {
      [](vesk_payload* payload) { return vesk_write_utf16_cstring(payload, nullptr); },
      [](vesk_payload* payload) { return vesk_payload_set_position(payload, 8); },
      [](vesk_payload* payload) { return vesk_write_endpoint(payload, nullptr); },
  };
  for (const Step step : failing) {
    const PayloadPtr payload(vesk_payload_alloc());
    vesk_write_i32(payload.get(), 1);
    EXPECT_EQ(vesk_payload_get_position(payload.get()), 4U);
    EXPECT_EQ(vesk_payload_last_error(payload.get()), 0);
    EXPECT_NE(step(payload.get()), 0);
    EXPECT_NE(vesk_write_i32(payload.get(), 2), 0);
    EXPECT_NE(vesk_payload_last_error(payload.get()), 0);
    EXPECT_EQ(bytes_of(payload.get()), Bytes().i32(1));
  }
}

TEST(Values, NullMessagesAreHarmless) {
  unsigned length = 99;
  vesk_endpoint endpoint{&Inbox::kFunctions, nullptr};
  for (const int error : {vesk_write_i32(nullptr, 1), vesk_write_i64(nullptr, 1), vesk_write_f64(nullptr, 1),
                          vesk_write_utf16_cstring(nullptr, "a"), vesk_write_array_length(nullptr, 1),
                          vesk_write_endpoint(nullptr, &endpoint), vesk_payload_set_position(nullptr, 0),
                          vesk_payload_last_error(nullptr), vesk_buffer_last_error(nullptr)}) {
    EXPECT_NE(error, 0);
  }
  EXPECT_EQ(vesk_payload_get_position(nullptr), 0U);
  EXPECT_EQ(vesk_read_i32(nullptr) + vesk_read_i64(nullptr) + vesk_read_array_length(nullptr), 0);
  EXPECT_EQ(vesk_read_f64(nullptr), 0);
  EXPECT_EQ(vesk_read_utf16_string(nullptr, &length), nullptr);
  EXPECT_EQ(length, 0U);
  vesk_payload_free(nullptr);
  vesk_buffer_free(nullptr);
  vesk_reply_done(nullptr, nullptr);
}

}  // namespace
}  // namespace orvel::test
