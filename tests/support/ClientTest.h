// What every test of the client library stands on: the fixture, and the lines that the library logs.
#pragma once

#include <gmock/gmock.h>
#include <sys/types.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ClientFixture.h"
#include "support/LogRecorder.h"

namespace orvel::test {

using Lines = std::vector<std::string>;

// Waits until the kernel has the thread asleep, which it is for a lock alone.
inline void wait_until_blocked(const std::atomic<pid_t>& thread) {
  char state = 0;
  while (state != 'S') {
    std::this_thread::yield();
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string name;
    status >> name >> name >> state;
  }
}

class ClientTest : public ::testing::Test, protected ClientFixture {
 protected:
  // `module` as for LogRecorder.
  explicit ClientTest(const std::string& module) : m_log(module) {}

  LogRecorder m_log;
};

// A client that shuts down behind each test.
class StoppedClient : public ClientTest {
 protected:
  StoppedClient() : ClientTest("OrvelDelegateClient") {}
  ~StoppedClient() override { m_client.shutdown(); }

  // Starts it on all eight services.
  void start() {
    start_services();
    EXPECT_TRUE(m_client.initialize());
    m_log.take();
  }

  Client& m_client = Client::getClient();
  Lines m_heard;  // what the test's callbacks were told
};

class StartedClient : public StoppedClient {
 protected:
  StartedClient() { start(); }
};

}  // namespace orvel::test
