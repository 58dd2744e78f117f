// One connection: how it is made, what goes over it, and what becomes of it when its service dies. Then the endpoints
// that services call, and the log.
#include "binder/Binder.h"

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "binder/IpcEndpoint.h"
#include "binder/OrvelLogger.h"
#include "binder/ServiceBinding.h"
#include "binder/Waiting.h"
#include "parcel/String.h"
#include "services/Transact.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BinderTest : public ClientTest {
 protected:
  BinderTest() : ClientTest("IDelegateService") { m_vesk.add_service("clock"); }

  // Blocks as the constructor does.
  std::unique_ptr<Binder> bind(bool android = false) {
    return std::make_unique<Binder>(m_runtime, "clock", android, [this] { ++m_reconnects; });
  }
  void die() {
    m_vesk.kill_service("clock");
    m_vesk.run_pending();
  }

  int m_reconnects = 0;
};

TEST_F(BinderTest, AServiceThatAppearsLateIsBoundAtTheThirdAttempt) {
  m_vesk.refuse_binds("clock", 2, -111);
  EXPECT_TRUE(bind(true)->good());
  EXPECT_THAT(m_clock.sleeps(), ElementsAre(2, 4));
  EXPECT_THAT(
      m_log.take(),
      ElementsAre("I bind_to_service:Binding to service: clock",
                  "E bind_to_android_service:Failed to bind to clock with error -111",
                  "E bind_to_service:Failed to connect to service (clock), retrying in 2s (300s remaining)",
                  "E bind_to_android_service:Failed to bind to clock with error -111",
                  "E bind_to_service:Failed to connect to service (clock), retrying in 4s (298s remaining)",
                  "I bind_to_android_service:Bound to service: clock", "I bind_to_service:Bound to service: clock"));
  EXPECT_EQ(m_vesk.live(), Live{});
}

TEST_F(BinderTest, ReadinessIsPolledOnlyUntilItIsThere) {
  EXPECT_TRUE(bind()->good());
  EXPECT_THAT(m_clock.sleeps(), IsEmpty());
  EXPECT_THAT(m_log.take(), ElementsAre("I bind_to_service:Binding to service: clock",
                                        "I service_bind_callback:Received service_bind_callback from: clock",
                                        "I bind_to_orvel_service:Bound to service clock, waiting for service readiness",
                                        "I bind_to_orvel_service:Bound service clock is now ready",
                                        "I bind_to_service:Bound to service: clock"));
  m_vesk.kill_service("clock");
  m_clock.at_sleep(3, [this] { m_vesk.add_service("clock"); });
  EXPECT_TRUE(bind()->good());
  EXPECT_THAT(m_clock.sleeps(), ElementsAre(2, 2, 2));
  EXPECT_EQ(m_log.take("W").back(),
            "W bind_to_orvel_service:Service clock is not ready yet, retrying in 2 seconds (attempt 3/10)");
}

TEST_F(BinderTest, OfSeveralBindCallbacksTheFirstInTimeCounts) {
  const std::uint32_t before = bind_to_orvel_service(m_runtime, "clock")->get()->words[0];
  m_vesk.repeat_binds("clock");
  EXPECT_EQ(bind_to_orvel_service(m_runtime, "clock")->get()->words[0], before + 1);

  m_vesk.hold_binds("clock");
  EXPECT_EQ(bind_to_orvel_service(m_runtime, "clock"), nullptr);
  EXPECT_EQ(m_clock.sleeps(), std::vector<long long>(10, 2));
  EXPECT_EQ(m_log.take().back(), "E bind_to_orvel_service:Bound service clock is not ready after timeout");
  m_vesk.complete_binds("clock");  // too late: what waited for it is gone
  EXPECT_EQ(m_log.take().back(), "I service_bind_callback:Received service_bind_callback from: clock");
  EXPECT_EQ(m_vesk.uses("vesk_service_unbind"), 0) << "it might cut the connection of a later attempt";
}

TEST_F(BinderTest, AServiceThatCannotBeWatchedIsNotKept) {
  m_vesk.fail_once("vesk_handle_link_to_death");
  const auto binder = bind();
  EXPECT_FALSE(binder->good());
  EXPECT_EQ(m_log.take().back(),
            "E bind_to_service:Failed to register death callback, service (clock) has likely died");
  EXPECT_EQ(m_vesk.uses("vesk_handle_unlink_to_death"), 2) << "after the failed link, and with the handle";
  EXPECT_EQ(m_vesk.uses("vesk_service_unbind"), 0);
  EXPECT_EQ(m_vesk.live().handle_references, 0);
}

TEST_F(BinderTest, AHandleThatEndsLeavesNoLinkToItsListener) {
  auto handle = bind_to_orvel_service(m_runtime, "clock");
  const auto held = std::make_shared<int>(0);
  EXPECT_TRUE(handle->set_death_listener([held] { ADD_FAILURE() << "the listener is gone"; }));
  vesk_handle_acquire(m_runtime, handle->get());  // so that the connection outlives it
  handle.reset();
  EXPECT_EQ(held.use_count(), 1) << "neither the handle nor libvesk keeps the death callback";
  die();
}

TEST_F(BinderTest, EachDeathIsFollowedByOnePauseOneRebindAndOneReconnect) {
  const auto binder = bind();
  for (int death = 1; death <= 3; ++death) {
    m_log.take();
    m_vesk.kill_service("clock");
    m_vesk.at_use(1, [&](std::string_view) {
      const auto answer = std::make_shared<std::promise<bool>>();
      std::thread([answer, &binder] { answer->set_value(binder->good()); }).detach();
      const auto answered = answer->get_future().wait_for(std::chrono::seconds(10));
      EXPECT_EQ(answered, std::future_status::ready) << "released under a lock";
    });
    m_clock.at_sleep(1, [&] {
      EXPECT_EQ(binder->call("i", 1).get(), nullptr) << "calls fail at once during a rebind";
      m_vesk.add_service("clock");
    });
    m_vesk.run_pending();
    EXPECT_TRUE(binder->good());
    EXPECT_EQ(m_reconnects, death);
    const Lines log = m_log.take();
    EXPECT_EQ(log.front(), "E on_binder_died:Service (clock) has died, re-establishing binder connection");
    EXPECT_EQ(log.back(), "I on_binder_died:Death callback completed");
  }
  EXPECT_THAT(m_clock.sleeps(), ElementsAre(6, 6, 6));
  EXPECT_EQ(m_vesk.live(), (Live{0, 0, /*lookups=*/1, /*handle_references=*/1, 0, /*death_references=*/1}));
}

TEST_F(BinderTest, ADeathCallbackLivesUntilItsLastReferenceEvenWhileItsListenerRuns) {
  for (const bool owner_first : {true, false}) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> capture = held;
    std::function<void(bool)> drop;
    bool alive_to_the_end = false;
    const auto run = [&] {
      drop(!owner_first);
      alive_to_the_end = !capture.expired();
    };
    auto* const callback = new vesk::IpcDeathCallback([&run, held = std::move(held)] { run(); });
    drop = [callback](bool owner) {
      owner ? callback->release() : vesk::IpcDeathCallback::death_release(callback->record());
    };
    callback->acquire();
    vesk::IpcDeathCallback::death_acquire(callback->record());
    drop(owner_first);
    vesk::IpcDeathCallback::on_death(m_runtime, callback->record(), nullptr);
    EXPECT_TRUE(alive_to_the_end && capture.expired()) << owner_first;
  }
}

TEST_F(BinderTest, AServiceThatStaysDeadIsGivenUpAndItsCallsFailAtOnce) {
  const auto binder = bind(true);
  die();
  EXPECT_THAT(m_clock.sleeps(), ElementsAre(6, 2, 4, 8, 16, 32, 60, 60, 60, 60));
  EXPECT_EQ(m_vesk.uses("vesk_binder_servicemanager_get"), 1 + 9) << "no attempt after the last sleep";
  const Lines log = m_log.take();
  EXPECT_EQ(log.end()[-2], "E bind_to_service:Giving up connecting to service (clock) after 300s timeout");
  EXPECT_EQ(log.end()[-1], "E on_binder_died:Failed to reconnect to service (clock), death callback completed");
  EXPECT_EQ(m_reconnects, 0);
  EXPECT_EQ(m_vesk.live(), Live{});

  EXPECT_EQ(transact(*binder, "i", 1, kNoArguments, replied), std::nullopt);
  EXPECT_THAT(m_log.take(), IsEmpty());
  EXPECT_EQ(binder->call("i", 1).get(), nullptr);
  EXPECT_THAT(m_log.take(), ElementsAre("E call:Binder is not initialized"));
  EXPECT_EQ(m_vesk.uses("vesk_payload_alloc") + m_vesk.uses("vesk_reply_done"), 0);
}

TEST_F(BinderTest, FailuresAreNamedAndReadAsNothing) {
  const char kException[] = "E call:Exception occurred in VESK call";
  const struct {
    const char* operation;  // that fails
    Bytes reply;
    Lines log;
    int calls;  // that leave the process
  } rows[] = {
      {"vesk_payload_alloc", {}, {"E call:Failed to alloc payload"}, 0},
      {"vesk_buffer_alloc", {}, {"E call:Failed to alloc buffer"}, 0},
      {"vesk_write_i32", {}, {"E call:Serialize payload failed with error -5"}, 0},
      {"vesk_call", {}, {"E call:VESK call failed with error -5"}, 1},
      {"",
       wire("-3 'bad' 1 'trace' 'value'"),
       {"E exceptionOccurred:Received error: -3 [bad]", "E exceptionOccurred:Stack Trace: trace", kException},
       1},
      {"", wire("1 'x' 0 'none'"), {"E exceptionOccurred:Received error: 1 [x]", kException}, 1},
      {"", wire("-1"), {"E exceptionOccurred:Received error: -1 []", kException}, 1},
      {"", {}, {}, 1},
  };
  const auto binder = bind();
  for (const auto& row : rows) {
    answer("clock", row.reply);
    m_vesk.fail_once(row.operation, 1, -5);
    m_log.take();
    const int calls = m_vesk.uses("vesk_call");
    EXPECT_EQ(transact(*binder, "i", 1, kNoArguments, String::read), "");
    EXPECT_EQ(m_log.take(), row.log);
    EXPECT_EQ(m_vesk.uses("vesk_call") - calls, row.calls);
    EXPECT_EQ(messages(), 0);
  }
  EXPECT_EQ(binder->call("i", 1, [](vesk_payload*) { return false; }).get(), nullptr);
  EXPECT_THAT(m_log.take(), ElementsAre("E call:Serialize payload failed with error -22"));
  EXPECT_THROW((void)binder->call("i", 1, RequestWriter()), std::bad_function_call);
  EXPECT_EQ(messages(), 0);
  binder->done();
  EXPECT_NE(binder->call("i", 1).get(), nullptr) << "what was thrown must leave no lock behind";
}

// Counts its destructions; serves two-way calls.
class Probe : public vesk::IpcEndpoint {
 public:
  explicit Probe(int& destroyed) : m_destroyed(destroyed) {}
  ~Probe() { ++m_destroyed; }
  int call(void*, unsigned int code, vesk_identity*, vesk_buffer*, vesk_payload*) { return static_cast<int>(code) + 1; }

 private:
  int& m_destroyed;
};

TEST(IpcEndpoint, ServesCallsUntilTheLastReferenceDestroysItOnceOwnersOrLibvesks) {
  for (const bool owner_first : {true, false}) {
    int destroyed = 0;
    vesk::EndpointPtr<Probe> owner = vesk::make_endpoint<Probe>(destroyed);
    vesk_endpoint* const record = owner->get_endpoint();
    EXPECT_EQ(static_cast<void*>(record), static_cast<void*>(owner.get())) << "libvesk's pointer is the container's";
    EXPECT_EQ(record->fn->endpoint_acquire(nullptr, record), 0);
    EXPECT_EQ(owner->get_refcount(), 2);
    if (owner_first) owner = {};
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(record->fn->endpoint_call(nullptr, record, 6, nullptr, nullptr, nullptr), 7);
    EXPECT_EQ(record->fn->endpoint_call_oneway(nullptr, record, 6, nullptr, nullptr), 1) << "which it does not serve";
    EXPECT_EQ(record->fn->endpoint_release(nullptr, record), 0);
    EXPECT_EQ(destroyed, owner_first ? 1 : 0);
    owner = {};
    EXPECT_EQ(destroyed, 1);
  }
}

TEST(OrvelLogger, EachLevelHasItsPriorityAndTheTagBeginsWithTheLibrary) {
  LogRecorder log("Module");
  const OrvelLogger logger("Module");
  logger.v("%s:%d", "f", 1);
  logger.d("%s:%d", "f", 2);
  logger.i("%s:%d", "f", 3);
  logger.w("%s:%d", "f", 4);
  OrvelLogger("").e("%s:%d", "f", 5);
  EXPECT_THAT(log.take(), ElementsAre("V f:1", "D f:2", "I f:3", "W f:4", "E OrvelDelegateClient: f:5"));
  const std::runtime_error error("because");
  using Log = void (OrvelLogger::*)(const std::string&, const std::exception&) const;
  const Log levels[] = {&OrvelLogger::v, &OrvelLogger::d, &OrvelLogger::i, &OrvelLogger::w, &OrvelLogger::e};
  for (const Log level : levels) (logger.*level)("no%s", error);
  EXPECT_THAT(log.take(), ElementsAre("V no%s: because", "D no%s: because", "I no%s: because", "W no%s: because",
                                      "E no%s: because"));
}

}  // namespace
}  // namespace orvel::test
