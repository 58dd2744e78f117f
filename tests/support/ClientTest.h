// What every test of the client library stands on: the fixture, and the lines that the library logs.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/ClientFixture.h"
#include "support/LogRecorder.h"

namespace orvel::test {

using Lines = std::vector<std::string>;

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
