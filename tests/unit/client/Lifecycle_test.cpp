// Starting and stopping, at any moment and from any thread.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "binder/Waiting.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using ::testing::ElementsAre;

constexpr char kShuttingDown[] = "I shutdown:OrvelDelegateClient shutting down";
constexpr char kHasShutDown[] = "I shutdown:OrvelDelegateClient has shut down";

class Lifecycle : public StoppedClient {
 protected:
  // A callback whose captured object shuts the client down when it ends.
  auto last_rites() {
    const std::shared_ptr<void> captured(&m_client, [this](void*) {
      m_client.shutdown();
      EXPECT_EQ(m_client.getDeviceName(), "");
      EXPECT_EQ(m_log.take("E").back(), "E getDeviceName:Client is not initialized");
      ++m_ended;
    });
    return [captured](auto&&...) {};
  }

  int m_ended = 0;
};

TEST_F(Lifecycle, StartsOnceAndStartsAgainAfterAStopEachServiceInAnOrderOfItsOwn) {
  Lines order;
  for (const char* name : kServices) order.push_back(std::string("+") + name);
  for (const unsigned n : {1U, 0U, 2U, 3U, 4U, 5U, 6U, 7U}) order.push_back(std::string("-") + kServices[n]);
  for (int round = 0; round < 2; ++round) {
    start_services();
    EXPECT_TRUE(m_client.initialize());
    EXPECT_EQ(m_log.take("IE").back(), "I initialize:OrvelDelegateClient initialized");
    EXPECT_TRUE(m_client.initialize());
    EXPECT_THAT(m_log.take(), ElementsAre("I initialize:Already initialized"));
    EXPECT_EQ(m_client.getDeviceName(), "Hall");
    m_log.take();
    m_client.shutdown();
    EXPECT_THAT(m_log.take(), ElementsAre(kShuttingDown, kHasShutDown));
    EXPECT_EQ(m_vesk.live(), Live{});
    const Lines bindings = m_vesk.bindings();
    EXPECT_EQ(Lines(bindings.end() - static_cast<std::ptrdiff_t>(order.size()), bindings.end()), order);
  }
  EXPECT_EQ(m_vesk.uses("vesk_run_loop"), 2) << "one thread for each start";
  EXPECT_EQ(m_vesk.uses("vesk_shutdown"), 2) << "and one stop";
}

TEST_F(Lifecycle, AMissingOrNullRuntimeIsAnError) {
  m_client.shutdown();
  EXPECT_THAT(m_log.take(), ElementsAre(kShuttingDown, kHasShutDown)) << "a stop without a start only logs";
  m_vesk.fail_once("vesk_get_runtime", 1, -2);
  EXPECT_FALSE(m_client.initialize());
  EXPECT_THAT(m_log.take(), ElementsAre("E initialize:Failed to get VESK runtime, error=-2"));
  m_vesk.give_null_runtime();
  EXPECT_FALSE(m_client.initialize());
  EXPECT_THAT(m_log.take(), ElementsAre("E initialize:VESK runtime is null"));
  EXPECT_EQ(m_vesk.uses("vesk_service_bind"), 0);
}

TEST_F(Lifecycle, AStopInterruptsAStartThatWaits) {
  std::thread stopper;
  m_clock.at_sleep(1, [&] {
    stopper = std::thread([this] { m_client.shutdown(); });
    while (!service_apis::waiting::interrupted()) std::this_thread::yield();
  });
  EXPECT_FALSE(m_client.initialize());
  stopper.join();
  EXPECT_EQ(m_log.take("E").back(), "E initialize:Interrupted by shutdown");
  EXPECT_EQ(m_vesk.live(), Live{});
}

TEST_F(Lifecycle, AStopEndsACallThatHangsWhileAnotherThreadWaitsForIt) {
  start();
  m_vesk.hold_calls(kServices[kDelegate]);
  std::future<std::string> name = std::async(std::launch::async, [this] { return m_client.getDeviceName(); });
  m_vesk.wait_for_held_calls(kServices[kDelegate]);
  std::atomic<pid_t> starter{0};
  std::future<bool> started = std::async(std::launch::async, [&] {
    starter = gettid();
    return m_client.initialize();
  });
  wait_until_blocked(starter);
  m_client.shutdown();
  EXPECT_EQ(name.get(), "");
  EXPECT_TRUE(started.get());
}

TEST_F(Lifecycle, WhatUsersCapturedMayShutTheClientDownWhenItEnds) {
  start();
  EXPECT_TRUE(m_client.registerForTimeSync(last_rites()));
  EXPECT_TRUE(m_client.registerForNetworkConnectivityChange(last_rites()));
  EXPECT_TRUE(m_client.registerForDirective("N", last_rites()));
  m_log.take();
  m_client.shutdown();
  EXPECT_EQ(m_ended, 3) << "with the client";

  start();
  m_vesk.fail_once("vesk_call");
  EXPECT_FALSE(m_client.registerForTimeSync(last_rites()));
  EXPECT_EQ(m_ended, 4) << "with a registration that fails";

  start();
  m_client.registerForNetworkConnectivityChange(last_rites());
  m_vesk.release_endpoint(m_vesk.transactions().back().endpoints.front());
  EXPECT_TRUE(m_client.registerForNetworkConnectivityChange([](bool) {}));
  EXPECT_EQ(m_ended, 5) << "with a callback that is replaced";
}

TEST_F(Lifecycle, TheRunLoopThreadTakesNoSignalsButItsOwnFaultsAndAStopWaitsForItsCallbackThatNeedsTheLocks) {
  start();
  std::promise<void> entered;
  m_vesk.post([&] {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_TRUE(sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGCHLD) && sigismember(&blocked, SIGUSR1));
    EXPECT_FALSE(sigismember(&blocked, SIGSEGV));
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof(name));
    EXPECT_STREQ(name, "orvel-loop");
    entered.set_value();
    while (m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
    m_client.getDeviceName();
    EXPECT_TRUE(m_client.initialize()) << "initialised as long as callbacks run";
  });
  entered.get_future().wait();
  m_client.shutdown();
  EXPECT_EQ(m_log.take().back(), kHasShutDown);
}

TEST_F(Lifecycle, TheChildOfAForkFailsInEveryMethod) {
  start();
  m_vesk.hold_calls(kServices[kDelegate]);
  std::future<std::string> name = std::async(std::launch::async, [this] { return m_client.getDeviceName(); });
  m_vesk.wait_for_held_calls(kServices[kDelegate]);
  const auto child = [this] {
    // The client lock is held for ever here.
    bool refused = !m_client.initialize();
    for (const Method& each : kMethods) {
      const std::string result = each.call(m_client, {});
      const bool said = service_apis::lastCall().code == service_apis::CallStatus::Code::kRefused;
      refused = refused && said && (result == each.refused || result == "false");
    }
    m_client.shutdown();
    const bool said = m_log.take("E").back() == "E shutdown:Called in the child of a fork";
    _exit(refused && said ? 0 : 1);
  };
  EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
  m_client.shutdown();
}

}  // namespace
}  // namespace orvel::test
