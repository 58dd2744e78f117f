// Starting and stopping, at any moment and from any thread.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

#include "client/ClientState.h"
#include "orvel/OrvelDelegateClient.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using namespace service_apis;  // NOLINT(google-build-using-namespace)
using ::testing::ElementsAre;

constexpr char kDelegate[] = "orvel_delegate";
constexpr char kPower[] = "com.quarlo.orvel.powermanager";
constexpr char kShuttingDown[] = "I shutdown:OrvelDelegateClient shutting down";
constexpr char kHasShutDown[] = "I shutdown:OrvelDelegateClient has shut down";

class Lifecycle : public ClientTest {
 protected:
  Lifecycle() : ClientTest("OrvelDelegateClient") {}
  ~Lifecycle() override { m_client.shutdown(); }

  void start() {
    start_services();
    answer(kDelegate, Bytes().i32(0).utf16("x"));
    EXPECT_TRUE(m_client.initialize());
  }

  OrvelDelegateClient& m_client = OrvelDelegateClient::getClient();
};

TEST_F(Lifecycle, StartsOnceAndStartsAgainAfterAStop) {
  for (int round = 0; round < 2; ++round) {
    start();
    EXPECT_EQ(m_log.take("IE").back(), "I initialize:OrvelDelegateClient initialized");
    EXPECT_TRUE(m_client.initialize());
    EXPECT_THAT(m_log.take(), ElementsAre("I initialize:Already initialized"));
    EXPECT_EQ(m_client.getDeviceName(), "x");
    m_log.take();
    m_client.shutdown();
    EXPECT_THAT(m_log.take(), ElementsAre(kShuttingDown, kHasShutDown));
    EXPECT_EQ(m_vesk.live(), Live{});
  }
  EXPECT_EQ(m_vesk.uses("vesk_run_loop"), 2) << "one thread for each start";
}

TEST_F(Lifecycle, ServicesComeAndGoEachInAnOrderOfItsOwn) {
  start();
  m_client.shutdown();
  Lines order;
  for (const char* name : kServices) order.push_back(std::string("+") + name);
  for (const unsigned n : {1U, 0U, 2U, 3U, 4U, 5U, 6U, 7U}) order.push_back(std::string("-") + kServices[n]);
  EXPECT_EQ(m_vesk.bindings(), order);
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

TEST_F(Lifecycle, AServiceThatIsGivenUpLeavesTheOthers) {
  answer(kPower, Bytes().i32(0).i32(1));
  EXPECT_TRUE(m_client.initialize());
  EXPECT_EQ(m_client.getDeviceName(), "");
  EXPECT_TRUE(m_client.isScreenOn());
}

TEST_F(Lifecycle, AStopInterruptsABlockedStartWhicheverServiceItWaitsFor) {
  for (const char* awaited : kServices) {
    m_clock.stop();
    std::future<bool> started = std::async(std::launch::async, [this] { return m_client.initialize(); });
    m_clock.wait_for_sleeper();
    m_client.shutdown();
    EXPECT_FALSE(started.get());
    EXPECT_EQ(m_log.take("E").back(), "E initialize:Interrupted by shutdown");
    m_vesk.add_service(awaited);
    EXPECT_EQ(m_log.take(), Lines{}) << "the pending bind must go too";
    EXPECT_EQ(m_vesk.live(), Live{});
  }
}

TEST_F(Lifecycle, AStopInterruptsThePauseAfterADeath) {
  start();
  m_clock.stop();
  m_vesk.kill_service(kDelegate);
  m_clock.wait_for_sleeper();
  m_client.shutdown();
  EXPECT_EQ(m_vesk.live(), Live{});
}

TEST_F(Lifecycle, AStopEndsACallThatHangs) {
  start();
  m_vesk.hold_calls(kDelegate);
  std::future<std::string> name = std::async(std::launch::async, [this] { return m_client.getDeviceName(); });
  m_vesk.wait_for_held_calls(kDelegate);
  m_client.shutdown();
  EXPECT_EQ(name.get(), "");
}

TEST_F(Lifecycle, AStopWaitsForACallbackThatNeedsTheLocks) {
  start();
  std::promise<void> entered;
  m_vesk.post([&] {
    entered.set_value();
    while (m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
    m_client.getDeviceName();
    EXPECT_TRUE(m_client.initialize()) << "initialised as long as callbacks run";
  });
  entered.get_future().wait();
  m_client.shutdown();
  EXPECT_EQ(m_log.take().back(), kHasShutDown);
}

TEST_F(Lifecycle, ACallbackCannotStopTheThreadThatRunsIt) {
  start();
  m_log.take();
  m_vesk.post([this] { m_client.shutdown(); });
  m_vesk.drain();
  EXPECT_THAT(m_log.take(), ElementsAre("E shutdown:Called from a callback"));
  EXPECT_EQ(m_client.getDeviceName(), "x");
}

TEST_F(Lifecycle, StartsAndStopsAtOnceAllReturn) {
  start();
  for (int n = 0; n < 20; ++n) {
    std::thread starter([this] { m_client.initialize(); });
    std::thread stopper([this] { m_client.shutdown(); });
    m_client.shutdown();
    starter.join();
    stopper.join();
    m_client.shutdown();
    EXPECT_EQ(m_vesk.live(), Live{});
  }
}

TEST_F(Lifecycle, InsideTheFacadeLockEveryMethodIsRefusedAndNoneDeadlocks) {
  start();
  m_client.shutdown();
  ClientState client;
  ASSERT_TRUE(client.initialize());
  m_log.take();
  // A query runs under the lock, as the connectivity callback does.
  client.ask<IDelegateService>("outer", [&](IDelegateService&) {
    EXPECT_EQ(client.ask("getDeviceName", &IDelegateService::getDeviceName), "");
    EXPECT_FALSE(client.isMaroConnected() || client.isNetworkConnected() || client.initialize());
    return true;
  });
  EXPECT_THAT(m_log.take(), ElementsAre("E getDeviceName:Called from the connectivity callback",
                                        "E isMaroConnected:Called from the connectivity callback",
                                        "E isNetworkConnected:Called from the connectivity callback",
                                        "E initialize:Called from the connectivity callback"));
  client.shutdown();
}

TEST_F(Lifecycle, TwoCallersOutliveAServiceThatComesAndGoes) {
  start();
  std::atomic<bool> stop{false};
  const auto caller = [&] {
    while (!stop) EXPECT_THAT(m_client.getDeviceName(), ::testing::AnyOf("", "x"));
  };
  std::thread first(caller);
  std::thread second(caller);
  for (int death = 0; death < 20; ++death) {
    m_clock.at_sleep(1, [this] { answer(kDelegate, Bytes().i32(0).utf16("x")); });
    m_vesk.kill_service(kDelegate);
    m_vesk.drain();
  }
  stop = true;
  first.join();
  second.join();
  EXPECT_EQ(m_client.getDeviceName(), "x");
  EXPECT_EQ(messages(), 0);
}

using LifecycleDeathTest = Lifecycle;

TEST_F(LifecycleDeathTest, ExitStopsAClientThatNobodyStopped) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  static const auto last_words = [] { std::fputs("all handlers ran\n", stderr); };
  const auto leave = [this](bool from_callback) {
    std::atexit(last_words);
    start();
    if (from_callback) {
      // While another thread waits for this very one.
      m_vesk.post([this] {
        while (m_vesk.uses("vesk_shutdown") == 0) std::this_thread::yield();
        std::exit(3);
      });
      m_client.shutdown();
    }
    std::exit(3);
  };
  EXPECT_EXIT(leave(false), ::testing::ExitedWithCode(3), "all handlers ran");
  EXPECT_EXIT(leave(true), ::testing::ExitedWithCode(3), "all handlers ran");
}

}  // namespace
}  // namespace orvel::test
