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

}  // namespace orvel::test
