// What a client must not do, or does at the worst moment: it gets a clear answer, and nothing hangs, leaks or goes
// wrong later.
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvel/CallbackQueue.h"
#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using namespace ::testing;  // NOLINT(google-build-using-namespace): its matchers

using service_apis::CallbackTask;
using service_apis::checked;
using service_apis::lastCall;
using service_apis::Link;
using service_apis::LinkState;
using service_apis::Subscription;
using StatusCode = service_apis::CallStatus::Code;
using To = service_apis::Service;

class Misuse : public StartedClient {
 protected:
  ~Misuse() override { m_client.setExecutor({}); }

  // A subscription whose callback runs `step`. What the callback captured expires with it.
  Subscription subscribe(std::function<void()> step, std::weak_ptr<int>* captured = nullptr) {
    const auto capture = std::make_shared<int>();
    if (captured) *captured = capture;
    return m_client.subscribeTimeSync([step = std::move(step), capture](long long, long long) { step(); });
  }
  void notify() {
    EXPECT_GT(send(kTimeSyncAction, broadcast("any", "")), 0);
    m_vesk.drain();
  }
  void expect_refused(const std::string& why) {
    EXPECT_EQ(lastCall().code, StatusCode::kRefused);
    EXPECT_EQ(lastCall().text, why);
  }
};

TEST_F(Misuse, ASubscriptionEndedInItsCallbackKeepsItsCapturesUntilThatReturns) {
  std::weak_ptr<int> captured;
  Subscription own;
  own = subscribe(
      [&] {
        own.end();
        m_heard.emplace_back(captured.expired() ? "gone" : "there");
      },
      &captured);
  notify();
  EXPECT_TRUE(captured.expired());
  notify();
  EXPECT_THAT(m_heard, ElementsAre("there"));
}

TEST_F(Misuse, ASubscriptionEndedInAnotherCallbackIsNotToldWhatIsOnItsWay) {
  std::weak_ptr<int> captured;
  Subscription other;
  const Subscription first = subscribe([&] {
    other = {};
    EXPECT_TRUE(captured.expired());
  });
  other = subscribe([this] { m_heard.emplace_back("told"); }, &captured);
  notify();
  EXPECT_THAT(m_heard, IsEmpty());
}

TEST_F(Misuse, ACallbackOnTwoThreadsThatEndsItselfOnOneKeepsItsCapturesThere) {
  std::vector<CallbackTask> tasks;
  m_client.setExecutor([&](CallbackTask task) { tasks.push_back(std::move(task)); });
  std::weak_ptr<int> captured;
  std::atomic<int> inside{0};
  Subscription own;
  own = subscribe(
      [&] {
        const bool ends = ++inside == 1;
        while (inside < 2) std::this_thread::yield();
        if (ends) {
          own.end();  // waits for the other thread
          EXPECT_FALSE(captured.expired());
        } else {
          // Goes when the end is waiting for it, as far as can be seen.
          while (m_client.state(To::kDelegate).held > 0) std::this_thread::yield();
          for (int n = 0; n < 1000; ++n) std::this_thread::yield();
        }
      },
      &captured);
  for (int n = 0; n < 2; ++n) notify();
  std::thread second(tasks.at(1));
  tasks.at(0)();
  second.join();
  EXPECT_TRUE(captured.expired());
}

TEST_F(Misuse, WhatAnExecutorThrowsIsLoggedAndOtherCallbacksGoOn) {
  int posted = 0;
  m_client.setExecutor([&](const CallbackTask& task) {
    if (++posted == 1) throw std::runtime_error("full");
    if (posted == 2) throw 42;  // NOLINT(hicpp-exception-baseclass): as a user might
    task();
  });
  const Subscription three = subscribe([this] { m_heard.emplace_back("told"); });
  for (int n = 0; n < 3; ++n) notify();
  EXPECT_THAT(m_heard, ElementsAre("told"));
  const std::string lost = "E OrvelDelegateClient:Callback post:The executor threw, and a callback of ";
  EXPECT_THAT(m_log.take("E"),
              ElementsAre(lost + "subscribeTimeSync is lost: full", lost + "subscribeTimeSync is lost"));
}

TEST_F(Misuse, AQueueThatIsNeverDispatchedKeepsTheNewestAndNothingBeyondTheEndOfItsSubscription) {
  service_apis::CallbackQueue queue(2);
  m_client.setExecutor(queue.executor());
  std::weak_ptr<int> captured;
  Subscription ended = subscribe([this] { m_heard.emplace_back("ended"); }, &captured);
  for (int n = 0; n < 4; ++n) notify();
  EXPECT_THAT(queue.dropped(), ElementsAre(Pair("subscribeTimeSync", 2U)));
  EXPECT_THAT(queue.dropped(), IsEmpty());
  ended.end();
  EXPECT_TRUE(captured.expired());
  const Subscription stays = subscribe([this] { m_heard.emplace_back("stays"); });
  notify();
  m_client.shutdown();
  queue.dispatch();
  EXPECT_THAT(m_heard, IsEmpty());
}

TEST_F(Misuse, ACallbackThatWaitsForWhatItHoldsUpIsRefusedWhereverItRuns) {
  service_apis::CallbackQueue queue;
  const Subscription each = subscribe([&] {
    EXPECT_TRUE(m_client.initialize());
    EXPECT_TRUE(m_client.start({{To::kPower}, std::chrono::seconds(1), true}));
    EXPECT_TRUE(m_client.waitFor(To::kPower, LinkState::kUp, std::chrono::seconds(1)));
    EXPECT_FALSE(m_client.waitFor(To::kPower, LinkState::kAway, std::chrono::seconds(1)));
    expect_refused("called from a callback, which keeps the link as it is");
    m_client.shutdown();
    expect_refused("called from a callback");
    m_heard.emplace_back("told");
  });
  notify();
  m_client.setExecutor(queue.executor());
  notify();
  EXPECT_EQ(queue.dispatch(), 1U);
  EXPECT_THAT(m_heard, ElementsAre("told", "told"));
  EXPECT_THAT(m_clock.sleeps(), IsEmpty());
}

TEST_F(Misuse, EmptyCallbacksAndNamespacesInUseAreSaidAtOnce) {
  const std::size_t before = m_vesk.transactions().size();
  const std::function<bool()> calls[] = {
      [&] { return bool(m_client.subscribeDeviceNameChange({})); },
      [&] { return bool(m_client.subscribeDeviceRegistrationChange({})); },
      [&] { return bool(m_client.subscribeMaroConnectivityChange({})); },
      [&] { return bool(m_client.subscribeNetworkConnectivityChange({})); },
      [&] { return bool(m_client.subscribeScreenStateChange({})); },
      [&] { return bool(m_client.subscribePackageAction("a", {}, {}, {})); },
      [&] { return bool(m_client.subscribeTimeSync({})); },
      [&] { return bool(m_client.subscribeSecureSettingIntChange("k", 1, {})); },
      [&] { return bool(m_client.subscribeSecureSetting("k", {})); },
      [&] { return bool(m_client.subscribeBroadcast("a", {}, {}, {})); },
      [&] { return bool(m_client.subscribeDirective("N", {})); },
      [&] { return bool(m_client.subscribeLink({})); },
      [&] { return m_client.send({}, {}); },
  };
  for (const auto& call : calls) {
    const auto [made, status] = checked(call);
    EXPECT_FALSE(made) << status.method;
    EXPECT_EQ(status.code, StatusCode::kInvalidArgument) << status.method;
    EXPECT_EQ(status.text, "the callback is empty");
  }
  EXPECT_EQ(m_vesk.transactions().size(), before);

  const auto callback = [](auto&&...) {};
  Subscription first = m_client.subscribeDirective("N", callback);
  EXPECT_FALSE(m_client.subscribeDirective("N", callback));
  EXPECT_EQ(lastCall().text, "this client is subscribed to the namespace already");
  first.end();
  EXPECT_TRUE(m_client.subscribeDirective("N", callback)) << "free again";

  m_client.shutdown();
  EXPECT_FALSE(m_client.start({}));
  EXPECT_EQ(lastCall().text, "no service is required: name one, or set `wait` to false to wait for none");
  EXPECT_EQ(m_client.state(To::kDelegate).state, LinkState::kStopped);
}

TEST_F(Misuse, EndsInAShutdownAndAfterItLeaveTheNextLifeAlone) {
  Subscription time = subscribe([] {});
  Subscription network = m_client.subscribeNetworkConnectivityChange([](bool) {});
  int unbound = 0;
  const std::function<void(std::string_view)> until_unbound = [&](std::string_view operation) {
    if (operation == "vesk_service_unbind" && ++unbound == 2) return time.end();  // the service's, the second
    m_vesk.at_use(1, until_unbound);
  };
  m_vesk.at_use(1, until_unbound);
  m_client.shutdown();
  EXPECT_FALSE(time);
  start();
  EXPECT_EQ(m_client.state(To::kDelegate).held, 0U);
  const Subscription again = m_client.subscribeNetworkConnectivityChange([](bool) {});
  network.end();
  EXPECT_EQ(m_client.state(To::kConnectivity).held, 1U);
}

TEST_F(Misuse, ALinkCallbackThatThrowsIsLoggedAndHearsOn) {
  int heard = 0;
  const Subscription links = m_client.subscribeLink(To::kPower, [&](const Link&) {
    if (++heard == 1) throw std::runtime_error("first");
    throw "no exception";
  });
  m_client.shutdown();
  EXPECT_GT(heard, 1);
  EXPECT_FALSE(m_client.rebind(To::kPower));
  EXPECT_EQ(lastCall().code, StatusCode::kNotInitialised);
  const std::vector<std::string> log = m_log.take("E");
  EXPECT_THAT(log, Contains(HasSubstr("A callback for links threw: first")));
  EXPECT_THAT(log, Contains(EndsWith("A callback for links threw")));
}

TEST_F(Misuse, ALinkCallbackMayEndACallbackThatStartsTheClient) {
  m_client.shutdown();
  m_vesk.kill_service(kServices[kPower]);
  ASSERT_TRUE(m_client.initialize());
  serve(kServices[kPower]);
  std::promise<void> up;
  Subscription busy = subscribe([&] {
    m_client.rebind(To::kPower);
    up.get_future().wait();
    m_client.initialize();
  });
  const Subscription links = m_client.subscribeLink(To::kPower, [&](const Link& link) {
    if (link.state != LinkState::kUp) return;
    up.set_value();
    busy.end();
    m_heard.emplace_back("ended");
  });
  notify();
  m_client.shutdown();
  EXPECT_THAT(m_heard, ElementsAre("ended"));
}

TEST_F(Misuse, ALinkCallbackMayCallTheClientWhileTheAssistantsConnectionIsTold) {
  m_client.shutdown();
  m_vesk.kill_service(kServices[kPower]);
  ASSERT_TRUE(m_client.initialize());
  serve(kServices[kPower]);
  const Bytes connected = broadcast("any", "", 1, wire("'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1"));
  std::promise<pid_t> loop;
  m_vesk.post([&] { loop.set_value(gettid()); });
  EXPECT_TRUE(m_client.registerForMaroConnectivityChange([this](bool) { m_heard.emplace_back("told"); }));
  const Subscription links =
      m_client.subscribeLink(To::kPower, [&, thread = loop.get_future().get()](const Link& link) {
        if (link.state != LinkState::kUp) return;
        const int read = m_vesk.uses("vesk_read_i32");
        send("com.quarlo.speech.CONNECTIVITY_ACTION", connected);
        while (m_vesk.uses("vesk_read_i32") == read) std::this_thread::yield();
        wait_until_blocked(thread);
        m_client.getDeviceName();
        m_heard.emplace_back("up");
      });
  m_client.rebind(To::kPower);
  while (m_vesk.transactions(kServices[kDelegate]).back().code != 33) std::this_thread::yield();
  m_vesk.drain();
  EXPECT_THAT(m_heard, ElementsAre("up", "told"));
}

TEST_F(Misuse, TheChildOfAForkEndsASubscriptionThatRunsInTheParentAndHearsOfNoLink) {
  std::promise<void> entered;
  std::promise<void> leave;
  Subscription busy = subscribe([&] {
    entered.set_value();
    leave.get_future().wait();
  });
  send(kTimeSyncAction, broadcast("any", ""));
  entered.get_future().wait();
  const auto child = [&] {
    busy.end();
    const bool refused = !m_client.subscribeLink([](const Link&) {}) && lastCall().code == StatusCode::kRefused &&
                         !m_client.waitFor(To::kPower, LinkState::kUp, std::chrono::hours(1)) &&
                         lastCall().text == "called in the child of a fork";
    _exit(refused && m_client.state(To::kPower).state == LinkState::kStopped ? 0 : 1);
  };
  EXPECT_EXIT(child(), ExitedWithCode(0), "");
  leave.set_value();
  m_vesk.drain();
}

}  // namespace
}  // namespace orvel::test
