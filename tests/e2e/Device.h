// Command lines and simulated devices for the end-to-end tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/Process.h"

namespace orvel::e2e {

using nlohmann::json;
using test::Process;
using test::Result;
using test::Words;

// A command line, and what comes of it. An expected output is the whole; one that begins with "..." stands anywhere
// in it, as an expected error does; null: any.
struct Row {
  std::string command;
  const char* output = nullptr;
  int status = 0;
  const char* error = "";
};

inline Words linesOf(const std::string& text) {
  std::istringstream stream(text);
  Words lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// One JSON object a line.
inline std::vector<json> parseLines(const std::string& text) {
  std::vector<json> objects;
  for (const std::string& line : linesOf(text)) objects.push_back(json::parse(line));
  return objects;
}

inline std::string contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// Without what differs from run to run.
inline std::string withoutTimes(const std::string& lines) {
  return std::regex_replace(lines, std::regex("\"timeMs\":[0-9]+,"), "");
}
inline std::string withoutNumbers(const std::string& lines) {
  return std::regex_replace(withoutTimes(lines), std::regex("\"sequence\":[0-9]+,\"epoch\":1,"), "");
}

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A directory for a device, and command lines for the shell that look for a device there. They find the programs of
// this build by name, and the directory above that of the device as T.
class NoDevice : public ::testing::Test {
 protected:
  std::filesystem::path temporary() const { return m_temporary.path(); }
  std::filesystem::path directory() const { return temporary() / "device"; }
  std::string file(const char* name) const { return temporary() / name; }

  Words environment() const {
    return {"ORVEL_RUNTIME_DIR=" + directory().string(), "TMPDIR=" + temporary().string(), "T=" + temporary().string(),
            "ORVEL_CALL_TIMEOUT_MS=" + std::to_string(m_callLimitMs),
            "PATH=" + test::programFolder() + ":/usr/bin:/bin"};
  }
  // Programs that start from now on wait so long for a service that hangs. The usual limit hurries nothing.
  void limitCalls(int milliseconds = 15'000) { m_callLimitMs = milliseconds; }

  Result run(const std::string& script) const { return test::run({"/bin/sh", "-c", script}, environment()); }
  std::string outputOf(const std::string& script) const { return run(script).output; }

  // Starts one program, up to the line of its errors with `ready`.
  std::unique_ptr<Process> start(const std::string& command, const std::string& ready = "") const {
    auto process = std::make_unique<Process>(Words{"/bin/sh", "-c", "exec " + command}, environment());
    if (!ready.empty()) process->waitForError(ready);
    return process;
  }
  std::unique_ptr<Process> serve(const std::string& options = "") const {
    auto device = start("orvel-sim run " + options);
    device->waitForOutput("serving in ");
    return device;
  }

  void expectRows(const std::vector<Row>& rows) const {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.command);
      const Result result = run(row.command);
      EXPECT_EQ(result.status, row.status) << result.error;
      EXPECT_TRUE(has(result.error, row.error)) << result.error;
      if (row.output == nullptr) continue;
      const std::string expected = row.output;
      const bool is_part = expected.rfind("...", 0) == 0;
      EXPECT_TRUE(is_part ? has(result.output, expected.substr(3)) : result.output == expected)
          << "expected: " << expected << "\nbut: " << result.output;
    }
  }
  template <typename... Words>
  void order(const Words&... words) const {
    expectRows({{std::string("orvel-sim ") + words}...});
  }

  // What a view of the device prints with --json.
  std::vector<json> view(const std::string& words) const {
    return parseLines(outputOf("orvel-sim " + words + " --json"));
  }

 private:
  test::TemporaryDirectory m_temporary;
  int m_callLimitMs = 15'000;
};

// A running device. The parameter says whether each service has a process of its own.
class Device : public NoDevice, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override { m_device = serve(GetParam() ? "--isolate" : ""); }

  // A client with a live connection to every service.
  std::unique_ptr<Process> client() const {
    auto client = start("orvel-e2e-client");
    client->waitForOutput("ready");
    return client;
  }
  // What the client's call gives, and how the library says that it failed.
  static std::string ask(Process& client, const std::string& method) {
    client.write("ask " + method);
    return client.waitForOutput("answer ");
  }
  pid_t pidOf(const std::string& service) const {
    for (const json& entry : view("services")) {
      if (entry.at("service") == service) return entry.at("pid");
    }
    return 0;
  }
  static void awaitRebinding(Process& client) { client.waitForError("on_binder_died:Death callback completed"); }

  std::unique_ptr<Process> m_device;
};

// The tests of a suite of devices, with both kinds.
#define ORVEL_BOTH_MODES(Suite)                        \
  INSTANTIATE_TEST_SUITE_P(, Suite, ::testing::Bool(), \
                           [](const auto& mode) { return mode.param ? "Isolated" : "InOneProcess"; })

}  // namespace orvel::e2e
