// A simulated device for one test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Process.h"

namespace orvel::e2e {

using test::Process;
using test::Result;
using test::Words;

// A directory for a device, and programs that look for one there.
class NoDevice : public ::testing::Test {
 protected:
  std::filesystem::path temporary() const { return m_temporary.path(); }
  std::filesystem::path directory() const { return temporary() / "device"; }

  // TMPDIR, so that what is left behind is seen.
  Words environment() const {
    return {"ORVEL_RUNTIME_DIR=" + directory().string(), "TMPDIR=" + temporary().string(),
            "ORVEL_CALL_TIMEOUT_MS=" + std::to_string(m_callLimitMs)};
  }

  // Before a service is told to hang: programs that start from now on do not wait long for it.
  void shortenCallLimit() { m_callLimitMs = 1'500; }
  // For those that nothing may hurry on a busy machine.
  void restoreCallLimit() { m_callLimitMs = kCallLimitMs; }

  // Starts a program without waiting, or runs it to its end.
  std::unique_ptr<Process> start(const Words& words) const { return std::make_unique<Process>(words, environment()); }
  Result run(const Words& words) const { return test::run(words, environment()); }

 private:
  static constexpr int kCallLimitMs = 20'000;

  test::TemporaryDirectory m_temporary;
  int m_callLimitMs = kCallLimitMs;
};

// The words of one command line, in two parts.
inline Words operator+(Words first, const Words& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// One JSON object a line.
inline std::vector<nlohmann::json> parseLines(const std::string& text) {
  std::istringstream lines(text);
  std::vector<nlohmann::json> objects;
  for (std::string line; std::getline(lines, line);) objects.push_back(nlohmann::json::parse(line));
  return objects;
}

// A running device. The parameter says whether each service has a process of its own.
class Device : public NoDevice, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    m_device = start(Words{"orvel-sim", "run"} + (GetParam() ? Words{"--isolate"} : Words{}));
    m_device->waitForOutput("serving in ");
  }

  // Orders that must be obeyed.
  void order(const Words& words) const {
    const Result result = run(Words{"orvel-sim"} + words);
    ASSERT_EQ(result.status, 0) << result.error;
  }

  // What a view of the device prints with --json.
  std::vector<nlohmann::json> view(const Words& words) const {
    return parseLines(run(Words{"orvel-sim"} + words + Words{"--json"}).output);
  }

  std::unique_ptr<Process> m_device;
};

}  // namespace orvel::e2e
