// The life of a program, ended by signals to this process.
#include "orvel/Session.h"

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <thread>

#include "binder/Waiting.h"
#include "support/ClientTest.h"

namespace orvel::test {
namespace {

using namespace std::chrono_literals;
using service_apis::CallStatus;
using service_apis::Service;

bool is_blocked(int signal) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

class SessionTest : public StoppedClient {};

TEST_F(SessionTest, EndsWithTheFirstSignalAndTakesFurtherOnes) {
  start_services();
  for (const int signal : {SIGINT, SIGTERM}) {
    Session session;
    ASSERT_TRUE(session);
    EXPECT_THROW(Session(), std::logic_error);
    std::thread([] { EXPECT_TRUE(is_blocked(SIGINT) && is_blocked(SIGTERM)); }).join();
    EXPECT_FALSE(session.wasEnded() || session.waitFor(-1s));
    kill(getpid(), signal);
    EXPECT_TRUE(session.waitFor(std::chrono::nanoseconds::max()));
    session.wait();
    session->shutdown();  // the session's may still be under way
    EXPECT_FALSE(session->initialize()) << "it stays ended";
    kill(getpid(), signal == SIGINT ? SIGTERM : SIGINT);
  }
  EXPECT_FALSE(is_blocked(SIGINT) || is_blocked(SIGTERM));
}

TEST_F(SessionTest, ASignalDuringTheStartEndsThatAndEachWaitWithItsReason) {
  m_clock.at_sleep(1, [] {
    kill(getpid(), SIGTERM);
    while (!service_apis::waiting::interrupted()) std::this_thread::yield();
  });
  const auto expect_interrupted = [](bool result) {
    EXPECT_FALSE(result);
    EXPECT_EQ(service_apis::lastCall().code, CallStatus::Code::kNotInitialised);
    EXPECT_EQ(service_apis::lastCall().text, "shutdown() has interrupted");
  };
  const Session session;
  EXPECT_TRUE(session.wasEnded());
  expect_interrupted(static_cast<bool>(session));
  expect_interrupted(session->initialize());
  expect_interrupted(session->start({{Service::kPower}}));
  expect_interrupted(session->waitFor(Service::kPower, service_apis::LinkState::kUp, 1h));
}

TEST_F(SessionTest, TheChildOfAForkLeavesItsParentAlone) {
  start_services();
  std::optional<Session> session(std::in_place);
  const pid_t child = fork();
  if (child == 0) {
    session.reset();
    _exit(7);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 7);
  kill(getpid(), SIGTERM);
  EXPECT_TRUE(session->waitFor(20s)) << "the parent still takes signals";
}

}  // namespace
}  // namespace orvel::test
