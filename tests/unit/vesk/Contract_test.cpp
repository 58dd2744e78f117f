// What callers of libvesk rely on. One source, two programs: linked with InprocessVesk and with the host runtime, so
// that what the unit tests stand on cannot drift from the real thing.
#include <algorithm>
#include <atomic>
#include <cerrno>
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

TEST_F(Contract, ShutdownEndsTheLoopAfterTheCallbackInProgressAndTheRestWaits) {
  Gate gate;
  keep(m_handle, listener("message", [&](int number) {
         if (number == 0) gate.pass();
       }));
  call(m_handle, kSend, 2);
  std::thread loop([&] {
    EXPECT_EQ(vesk_run_loop(m_runtime), 0);
    m_log.add("returned");
  });
  gate.wait_for_callback();
  EXPECT_NE(vesk_run_loop(m_runtime), 0) << "one thread at a time";
  EXPECT_EQ(vesk_shutdown(m_runtime), 0);
  gate.open();
  loop.join();
  EXPECT_EQ(vesk_run_loop(m_runtime), 0) << "a loop entered later returns at once";
  EXPECT_EQ(m_log.now(), (Lines{"message 0", "returned"}));
  void* runtime = nullptr;
  EXPECT_EQ(vesk_get_runtime(&runtime), 0);
  EXPECT_EQ(runtime, m_runtime);
  const RunLoop again(m_runtime);
  EXPECT_EQ(m_log.wait_for(3), (Lines{"message 0", "returned", "message 1"}));
}

TEST_F(Contract, ShutdownFailsCallsInProgressAndNewOnesAndNothingElse) {
  Listener& all = listener("message");
  keep(m_handle, all);
  std::future<int> hanging = hanging_call(lookup());
  vesk_shutdown(m_runtime);
  EXPECT_TRUE(fails_at_once(hanging.get()));
  EXPECT_NE(call(m_handle, kEcho).error, 0);

  EXPECT_TRUE(valid(m_handle));
  for (const int error : {acquire(m_handle), link(m_handle, all), unlink(m_handle, all), release(m_handle)}) {
    EXPECT_EQ(error, 0);
  }
  EXPECT_EQ(all.references, 1);
  EXPECT_EQ(unbind(m_handle), 0);
  EXPECT_EQ(all.references, 0) << "the last reference to a handle takes its exports along";
  EXPECT_FALSE(valid(m_handle));
  EXPECT_EQ(bind(m_peer.name(), all), 0);
  EXPECT_EQ(publish("contract.name", all), 0);
  EXPECT_EQ(vesk_shutdown(m_runtime), 0);
  EXPECT_EQ(all.references, 0);

  vesk_get_runtime(&m_runtime);
  EXPECT_EQ(call(all.handle, kEcho, 5).numbers, Numbers{5});
}

TEST_F(Contract, ShutdownWithdrawsNamesAndDropsPendingBinds) {
  EXPECT_EQ(publish("contract.name", listener("message")), 0);
  EXPECT_EQ(bind("late", listener("dropped")), 0);
  vesk_shutdown(m_runtime);
  vesk_get_runtime(&m_runtime);
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(lookup(), kAskName, 1, "contract.name").numbers, Numbers{1}) << "nothing serves it any more";
  bind("late", listener("kept"));
  bind("later", listener("marker"));
  const Peer late("late");
  m_log.wait_for(1);
  const Peer later("later");
  EXPECT_EQ(m_log.wait_for(2), (Lines{"bound kept", "bound marker"}));
}

TEST_F(Contract, ShutdownWaitsForABindCallbackThatRuns) {
  Gate gate;
  std::thread binder([&] {
    bind(m_peer.name(), listener("slow", [&](int) {
           gate.pass();
           m_log.add("has left");
         }));
  });
  gate.wait_for_callback();
  std::thread stopper([&] {
    vesk_shutdown(m_runtime);
    EXPECT_EQ(m_log.now(), (Lines{"bound slow", "has left"}));
  });
  EXPECT_TRUE(eventually([&] { return call(m_handle, kEcho).error != 0; }));  // the shutdown has begun
  gate.open();
  stopper.join();
  binder.join();
  // Returns: from inside a bind callback there is nothing to wait for.
  bind(m_peer.name(), listener("stopping", [&](int) { vesk_shutdown(m_runtime); }));
  EXPECT_EQ(m_log.now().size(), 3U);
}

TEST_F(Contract, TheRunLoopThreadHearsMessagesThenTheDeathAndMayBindAndSendEndpointsItself) {
  const Peer other("other");
  Listener& inbox = listener("message");
  Listener& rebind = listener("other");
  Listener& mourner = listener("peer", [&](int) {
    EXPECT_EQ(bind(other.name(), rebind), 0);
    keep(rebind.handle, rebind);
    EXPECT_EQ(call(rebind.handle, kSend, 1).error, 0);
  });
  acquire(m_handle);
  keep(m_handle, inbox);
  link(m_handle, mourner);
  call(m_handle, kSend, 2);
  EXPECT_EQ(call(m_handle, kAskAll, 3).error, 0);
  m_peer.kill();
  EXPECT_EQ(m_log.now(), Lines{}) << "before the loop runs everything waits";
  const RunLoop loop(m_runtime);
  EXPECT_EQ(m_log.wait_for(8), (Lines{"message 0", "message 1", "message 0", "message 1", "message 2", "peer died",
                                      "bound other", "other 0"}))
      << "also what follows a question that the dead peer does not hear the answer to";
  for (const Listener* each : {&inbox, &mourner, &rebind}) EXPECT_EQ(each->thread, loop.thread());
  EXPECT_TRUE(inbox.has(0)) << "what a dead peer held is released, whether or not the handle is";
  EXPECT_TRUE(mourner.has(0));
  EXPECT_TRUE(valid(m_handle));
  release(m_handle);
  EXPECT_TRUE(eventually([&] { return !valid(m_handle); })) << "the lookup's reference ends with the service";
  release(m_handle), unbind(m_handle);  // harmless
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
  Listener& inbox = listener("message", use_and_throw);
  Listener& mourner = listener("peer", use_and_throw);
  Listener& next = listener("next");
  Listener& unlinked = listener("unlinked");
  Listener& bound = listener("peer", use_and_throw);
  for (Listener* each : {&inbox, &mourner, &unlinked}) each->before_count = use;
  const RunLoop loop(m_runtime);
  EXPECT_EQ(bind(m_peer.name(), bound), 0);
  keep(bound.handle, inbox);
  EXPECT_EQ(publish("contract.name", inbox), 0);
  EXPECT_EQ(publish("contract.name", inbox), 0);
  EXPECT_EQ(call(bound.handle, kSend, 1).error, 0);
  EXPECT_EQ(call(bound.handle, kAsk, 1).numbers, Numbers{1}) << "a two-way call fails";
  EXPECT_EQ(call(bound.handle, kAsk, 7).numbers, (Numbers{0, 107})) << "and the next does not";
  for (Listener* each : {&mourner, &next, &unlinked}) link(bound.handle, *each);
  unlink(bound.handle, unlinked);
  m_peer.kill();
  EXPECT_EQ(m_log.wait_for(6), (Lines{"bound peer", "message 0", "message 1", "message 7", "peer died", "next died"}));
  EXPECT_TRUE(inbox.has(1)) << "that of the name";
  EXPECT_TRUE(mourner.has(0));
  inbox.before_count = {};  // what it calls fails once the loop is shut down
}

TEST_F(Contract, BindsWhatRunsAtOnceAndTheRestWhenItAppears) {
  Listener& late = listener("late");
  Listener& again = listener("again");
  EXPECT_EQ(bind("late", late), 0);
  EXPECT_EQ(bind("late", again), 0);
  EXPECT_EQ(bind(m_peer.name(), listener("now")), 0);
  EXPECT_EQ(m_log.now(), Lines{"bound now"}) << "before vesk_service_bind returned";
  vesk_handle none = vesk_invalid_handle();
  EXPECT_NE(vesk_binder_servicemanager_get(m_runtime, "late", &none), 0) << "answers at once";
  const Peer appeared("late");
  Lines bound = m_log.wait_for(3);
  std::sort(bound.begin() + 1, bound.end());  // those that wait for one name are told in any order
  EXPECT_EQ(bound, (Lines{"bound now", "bound again", "bound late"}));
  EXPECT_EQ(unbind(late.handle), 0);
  EXPECT_EQ(call(again.handle, kEcho, 3).numbers, Numbers{3}) << "each has a reference";
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
    EXPECT_EQ(call(handle, kEcho, n).numbers, Numbers{n}) << "one reference is left";
    EXPECT_EQ(release(handle), 0);
    EXPECT_FALSE(valid(handle));
    EXPECT_NE(call(handle, kEcho).error, 0);
  }
}

TEST_F(Contract, NoDeathFallsBetweenALookupAndItsLink) {
  std::vector<vesk_handle> late(8);
  for (vesk_handle& handle : late) handle = lookup();
  link(lookup(), listener("marker"));
  const RunLoop loop(m_runtime);
  m_peer.kill();
  m_log.wait_for(1);  // most of the other connections have ended by now as well
  Lines heard{"marker died"};
  for (const vesk_handle handle : late) {
    Listener& mourner = listener("late");
    ASSERT_EQ(link(handle, mourner), 0);
    heard.emplace_back("late died");
    EXPECT_EQ(m_log.wait_for(heard.size()), heard);
    EXPECT_EQ(mourner.handle.words[0], handle.words[0]);
    EXPECT_EQ(mourner.handle.words[1], handle.words[1]);
    EXPECT_TRUE(mourner.has(0));
  }
}

TEST_F(Contract, OnlyALinkKeepsItsCallbackWhichHearsNothingOnceItIsUnlinked) {
  const vesk_handle unbound = lookup();
  Listener& linked = listener("linked");
  Listener& other = listener("other");
  EXPECT_NE(link(vesk_invalid_handle(), linked), 0);
  EXPECT_EQ(linked.references, 0);
  EXPECT_EQ(link(unbound, linked), 0);
  EXPECT_EQ(linked.references, 1);
  unlink(unbound, other);
  EXPECT_EQ(other.references, 0) << "unlinking what is not linked";
  unlink(unbound, linked);
  unlink(unbound, linked);
  EXPECT_EQ(linked.references, 0);
  link(unbound, linked);
  unbind(unbound);
  EXPECT_EQ(linked.references, 0) << "the links end with the handle";

  Listener& queued = listener("queued");
  Listener& marker = listener("marker");
  Listener& unlinker = listener("unlinker", [&](int) { unlink(m_handle, queued); });
  for (Listener* each : {&linked, &linked, &unlinker, &queued, &marker}) link(m_handle, *each);
  m_peer.kill();
  EXPECT_NE(call(m_handle, kEcho).error, 0);  // the death is known ...
  unlink(m_handle, linked);                   // ... and its notice waits for the loop
  const RunLoop loop(m_runtime);
  EXPECT_EQ(m_log.wait_for(2), (Lines{"unlinker died", "marker died"}));
  for (Listener* each : {&linked, &unlinker, &queued, &marker}) EXPECT_TRUE(each->has(0));
}

TEST_F(Contract, CallsOfADeadOrDyingServiceFailAtOnce) {
  std::future<int> hanging = hanging_call(lookup());
  m_peer.kill();
  EXPECT_TRUE(fails_at_once(hanging.get()));
  EXPECT_NE(call(m_handle, kEcho).error, 0);
  const Peer next("next");
  EXPECT_TRUE(fails_at_once(call(lookup(next.name()), kDie).error));
}

TEST_F(Contract, ACallWhoseTimeIsOverFailsAloneAndItsLateAnswerIsDropped) {
  Listener& inbox = listener("message");
  const RunLoop loop(m_runtime);
  const auto run_late = [&](Listener* along) {
    std::future<int> hanging = hanging_call(m_handle, along);
    m_peer.pass_call_limit();
    EXPECT_EQ(hanging.get(), -ETIMEDOUT);
    EXPECT_EQ(along == nullptr ? 0 : along->references.load(), 0) << "what fails drops its endpoints";
  };
  run_late(&listener("first"));  // that the connection has ever carried
  run_late(nullptr);
  EXPECT_FALSE(keep(m_handle, inbox)) << "the peer answers the other two before this one";
  EXPECT_EQ(call(m_handle, kAsk, 1).numbers, (Numbers{0, 101}));
  run_late(&listener("last"));
  EXPECT_EQ(call(m_handle, kEcho, 2).numbers, Numbers{2});
  EXPECT_EQ(call(m_handle, kAsk, 3).numbers, (Numbers{0, 103})) << "the endpoint that came late was taken back";
  EXPECT_EQ(inbox.references, 1);
  EXPECT_EQ(m_log.now(), (Lines{"message 1", "message 3"}));
}

TEST_F(Contract, AFailedCallDropsItsEndpointsAndAGoodOneHandsThemOver) {
  Listener& inbox = listener("message");
  {
    const PayloadPtr unsent(vesk_payload_alloc());
    EXPECT_EQ(vesk_write_endpoint(unsent.get(), &inbox.endpoint), 0);
    EXPECT_EQ(inbox.references, 1) << "taken when written";
  }
  EXPECT_EQ(inbox.references, 0) << "a payload that was never sent";
  const Peer doomed("doomed");
  const vesk_handle dying = lookup(doomed.name());
  const std::pair<vesk_handle, unsigned> failing[] = {
      {vesk_invalid_handle(), kKeep}, {m_handle, kFail}, {dying, kDie}, {dying, kKeep}};
  for (const auto& [handle, code] : failing) {
    EXPECT_NE(call(handle, code, 0, nullptr, &inbox).error, 0);
    EXPECT_EQ(inbox.references, 0) << code;
  }
  keep(m_handle, inbox);
  EXPECT_NE(call(m_handle, kFail, 0, nullptr, &inbox).error, 0);
  EXPECT_EQ(inbox.references, 1) << "the sending that succeeded still counts";
  EXPECT_TRUE(keep(m_handle, inbox)) << "the same reference, counted twice";
  call(m_handle, kLetGo);
  call(m_handle, kLetGo);
  keep(m_handle, inbox);  // sent before this side, whose loop does not run yet, hears of the letting go
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(m_handle, kAsk, 5).numbers, (Numbers{0, 105}));
  call(m_handle, kLetGo);
  EXPECT_TRUE(inbox.has(0));
}

TEST_F(Contract, AnEndpointOutlivesItsCallbackAlsoWhenItIsReleasedMeanwhile) {
  Gate gate;
  std::atomic<bool> left{false};
  Listener& inside = listener("inside");
  inside.then = [&](int) {
    unbind(m_handle);
    EXPECT_GT(inside.references, 0);
  };
  Listener& outside = listener("outside");
  outside.then = [&](int) {
    gate.pass();
    EXPECT_GT(outside.references, 0);
    left = true;
  };
  keep(m_handle, inside);
  const RunLoop loop(m_runtime);
  call(m_handle, kSend, 1);
  EXPECT_TRUE(inside.has(0));

  const vesk_handle outer = lookup();
  keep(outer, outside);
  call(outer, kSend, 1);
  gate.wait_for_callback();
  std::thread releaser([&] {
    unbind(outer);
    EXPECT_TRUE(left && outside.references == 0) << "released when vesk_service_unbind has returned";
  });
  EXPECT_TRUE(eventually([&] { return !valid(outer); }));
  gate.open();
  releaser.join();
}

TEST_F(Contract, PublishingANameAgainReplacesItsEndpoint) {
  Gate gate;
  Listener& first = listener("first");
  first.then = [&](int) {
    gate.pass();
    EXPECT_GT(first.references, 0) << "while its callback is in progress";
  };
  Listener& second = listener("second");
  EXPECT_NE(publish(m_peer.name(), second), 0) << "a live process serves it";
  EXPECT_EQ(publish("contract.name", first), 0) << "and spoils no other name";
  const RunLoop loop(m_runtime);
  EXPECT_EQ(call(m_handle, kSendToName, 1, "contract.name").error, 0);
  gate.wait_for_callback();
  EXPECT_EQ(publish("contract.name", second), 0);
  gate.open();
  EXPECT_EQ(call(m_handle, kAskName, 2, "contract.name").numbers, (Numbers{0, 102}));
  EXPECT_EQ(m_log.now(), (Lines{"first 1", "second 2"}));
  EXPECT_TRUE(first.has(0));
  EXPECT_EQ(second.references, 1);
}

// The bytes of values are those of the client library's tests.
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

  EXPECT_EQ(vesk_read_i64(whole.get()), 0) << "only four bytes are left";
  const BufferPtr damaged = buffer_of(Bytes().utf16("abc").cut(4).i32(0x40004));  // no terminator where it should be
  for (vesk_buffer* buffer : {damaged.get(), whole.get(), static_cast<vesk_buffer*>(nullptr)}) {
    length = 99;
    EXPECT_EQ(vesk_read_utf16_string(buffer, &length), nullptr);
    EXPECT_EQ(length, 0U);
    EXPECT_NE(vesk_buffer_last_error(buffer), 0);
    EXPECT_EQ(vesk_read_i32(buffer) + vesk_read_i64(buffer) + vesk_read_array_length(buffer), 0);
    EXPECT_EQ(vesk_read_f64(buffer), 0);
  }
}

TEST_F(Contract, AnEndpointWithoutAllItsFunctionsIsRefusedAndNotCounted) {
  const vesk_endpoint_fn& all = Listener::kFunctions;
  const vesk_endpoint_fn rows[] = {{nullptr, all.endpoint_call_oneway, all.endpoint_acquire, all.endpoint_release},
                                   {all.endpoint_call, nullptr, all.endpoint_acquire, all.endpoint_release},
                                   {all.endpoint_call, all.endpoint_call_oneway, nullptr, all.endpoint_release},
                                   {all.endpoint_call, all.endpoint_call_oneway, all.endpoint_acquire, nullptr}};
  Listener& owner = listener("incomplete");
  const auto expect_refused = [&](const vesk_endpoint_fn* functions) {
    vesk_endpoint endpoint{functions, &owner};
    EXPECT_EQ(vesk_service_register(m_runtime, "contract.incomplete", &endpoint), -EINVAL);
    const PayloadPtr payload(vesk_payload_alloc());
    EXPECT_EQ(vesk_write_endpoint(payload.get(), &endpoint), -EINVAL);
    EXPECT_EQ(vesk_payload_last_error(payload.get()), -EINVAL);
  };
  expect_refused(nullptr);
  for (const vesk_endpoint_fn& row : rows) expect_refused(&row);
  EXPECT_EQ(owner.references, 0);
}

TEST(Values, AFailedWriteIsStickyAndNothingFollowsIt) {
  const auto expect_all_fail = [](vesk_payload* payload) {
    vesk_endpoint endpoint{&Listener::kFunctions, nullptr};
    for (const int error : {vesk_write_i32(payload, 1), vesk_write_i64(payload, 1), vesk_write_f64(payload, 1),
                            vesk_write_utf16_cstring(payload, "a"), vesk_write_array_length(payload, 1),
                            vesk_write_endpoint(payload, &endpoint), vesk_payload_set_position(payload, 0),
                            vesk_payload_last_error(payload)}) {
      EXPECT_NE(error, 0);
    }
  };
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
    expect_all_fail(payload.get());
    EXPECT_EQ(bytes_of(payload.get()), Bytes().i32(1));
  }
  expect_all_fail(nullptr);
  vesk_payload_free(nullptr);
  vesk_buffer_free(nullptr);
  vesk_reply_done(nullptr, nullptr);
}

}  // namespace
}  // namespace orvel::test
