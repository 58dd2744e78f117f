// A program's own loop: the queue alone, and behind the client.
#include "orvel/CallbackQueue.h"

#include <poll.h>

#include <array>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "support/ClientTest.h"
#include "support/Notifications.h"

namespace orvel::test {
namespace {

using service_apis::CallbackQueue;
using service_apis::CallbackTask;
using ::testing::ElementsAre;
using ::testing::Pair;

bool readable(const CallbackQueue& queue, int limit = 0) {
  pollfd event = {queue.fd(), POLLIN, 0};
  return poll(&event, 1, limit) == 1;
}

class CallbackQueueTest : public ::testing::Test {
 protected:
  void add(const char* text, const std::function<void()>& act = nullptr) {
    m_add(CallbackTask(text, [this, text, act] {
      m_run.emplace_back(text);
      if (act) act();
    }));
  }
  // The same with an object that adds a task when it ends.
  void add_with_object(const char* text) {
    add(text, [object = std::shared_ptr<void>(this, [this](void*) { ++m_ended, add("late"); })] {});
  }

  std::unique_ptr<CallbackQueue> m_queue = std::make_unique<CallbackQueue>(4);
  const service_apis::Executor m_add = m_queue->executor();
  Lines m_run;
  int m_ended = 0;
};

TEST_F(CallbackQueueTest, TheOldestMakeRoomForTheNewestAndAreCounted) {
  EXPECT_FALSE(readable(*m_queue));
  for (const char* text : {"a", "b", "a", "d", "e", "f", "g"}) add(text);
  EXPECT_TRUE(readable(*m_queue));
  EXPECT_EQ(m_queue->dispatch(), 4U);
  EXPECT_FALSE(readable(*m_queue));
  EXPECT_THAT(m_run, ElementsAre("d", "e", "f", "g"));
  EXPECT_THAT(m_queue->dropped(), ElementsAre(Pair("a", 2U), Pair("b", 1U)));
  EXPECT_TRUE(m_queue->dropped().empty());

  CallbackQueue least(0);
  for (int n = 0; n < 2; ++n) least.executor()(CallbackTask("n", [] {}));
  EXPECT_EQ(least.dispatch(), 1U);
}

TEST_F(CallbackQueueTest, WhatComesMeanwhileAndWhatAnExceptionLeavesIsForTheNextTime) {
  add("a", [this] { add("c"); });
  add("b", [] { throw std::runtime_error("no"); });
  EXPECT_THROW(m_queue->dispatch(), std::runtime_error);
  EXPECT_TRUE(readable(*m_queue));
  add("d", [this] { EXPECT_EQ(m_queue->dispatch(), 0U) << "within itself"; });
  EXPECT_EQ(m_queue->dispatch(), 2U);
  EXPECT_THAT(m_run, ElementsAre("a", "b", "c", "d"));
}

TEST_F(CallbackQueueTest, ItMayEndInItsOwnCallbackAndDropsObjectsThatAddTasksUnderNoLock) {
  add_with_object("x");
  add("y");
  add("z");
  add("end", [this] { m_queue.reset(); });
  add_with_object("b");  // drops x, whose object adds a task that drops y
  EXPECT_EQ(m_ended, 1);
  EXPECT_EQ(m_queue->dispatch(), 2U);
  EXPECT_EQ(m_ended, 2) << "b, which waited";
  add_with_object("c");
  EXPECT_EQ(m_ended, 3) << "after the end";
  EXPECT_THAT(m_run, ElementsAre("z", "end"));
}

TEST_F(CallbackQueueTest, NoTaskIsLostOrOvertakenBetweenThreads) {
  CallbackQueue queue;
  std::array<int, 2> seen{};
  const auto produce = [&](int& next) {
    return std::thread([&next, add = queue.executor()] {
      for (int n = 0; n < 500; ++n) add(CallbackTask("n", [&next, n] { EXPECT_EQ(next++, n); }));
    });
  };
  std::array<std::thread, 2> threads{produce(seen[0]), produce(seen[1])};
  while (seen[0] + seen[1] < 1000 && readable(queue, -1)) queue.dispatch();
  for (std::thread& each : threads) each.join();
}

class OwnLoop : public StartedClient {
 protected:
  OwnLoop() { m_client.setExecutor(m_queue.executor()); }
  ~OwnLoop() override { m_client.setExecutor({}); }

  CallbackQueue m_queue;
};

TEST_F(OwnLoop, HasAllCallbacksInOneOrderNoneOfAnEndedOneAndHoldsUpNoStop) {
  Lines heard;
  const auto note = [&heard](const char* text) {
    return [&heard, text, own = std::this_thread::get_id()](const auto&...) {
      heard.emplace_back(std::this_thread::get_id() == own ? text : "elsewhere");
    };
  };
  const auto tell = [this](const char* action) {
    EXPECT_EQ(send(action, broadcast(action, "")), 1);
    m_vesk.drain();
  };
  const auto screen = m_client.subscribeScreenStateChange(note("screen"));
  auto time = m_client.subscribeTimeSync(note("time"));
  const auto link = m_client.subscribeLink(service_apis::Service::kDelegate, note("link"));
  for (const char* action : {kScreenOnAction, kTimeSyncAction, kScreenOnAction, kTimeSyncAction}) tell(action);
  EXPECT_THAT(heard, ElementsAre());
  EXPECT_EQ(m_queue.dispatch(), 5U);
  tell(kTimeSyncAction);
  time.end();
  tell(kScreenOnAction);
  m_queue.dispatch();
  tell(kScreenOnAction);
  m_client.shutdown();
  m_queue.dispatch();
  EXPECT_THAT(heard, ElementsAre("link", "screen", "time", "screen", "time", "screen", "link"))
      << "the link alone lasts longer than the client";
}

}  // namespace
}  // namespace orvel::test
