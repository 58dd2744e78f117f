// What scripts rely on: the exit status of every subcommand, and the one shape of every failure with --json.
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>

#include "Device.h"
#include "support/SchemaCheck.h"

namespace orvel::e2e {
namespace {

using nlohmann::json;

struct Subcommand {
  const char* path;
  Words good;           // its arguments
  Words wrong;          // ones that are not to be understood
  const char* service;  // that answers it, by its name in orvel-sim; null where a dead or hanging one costs nothing
};

const std::vector<Subcommand>& subcommands() {
  static const std::vector<Subcommand> all = {
      {"device", {}, {"extra"}, "delegate"},
      {"get", {"name"}, {"shoe-size"}, "delegate"},
      {"setting", {"k"}, {""}, "delegate"},
      {"settings get secure", {"k"}, {}, "delegate"},
      {"screen", {}, {"extra"}, "power"},
      {"assistant", {}, {"extra"}, nullptr},  // the client knows it, or does not
      {"network", {}, {"extra"}, nullptr},    // it is always the same
      {"wake-lock", {"full"}, {"half"}, "power"},
      {"am broadcast", {"-a", "X"}, {}, "delegate"},
      {"am broadcast-int", {"X", "a/.B", "k", "1"}, {"X", "ab", "k", "1"}, "delegate"},
      {"am start", {"-n", "a/.B"}, {"-n", "ab"}, "delegate"},
      {"am start-service", {"-n", "a/.B"}, {"-n", "ab"}, "delegate"},
      {"am start-foreground-service", {"-n", "a/.B"}, {"-n", "ab"}, "delegate"},
      {"am launch", {"com.quarlo.music"}, {}, "delegate"},
      {"am foreground", {}, {"extra"}, "activity"},
      {"am process-state", {"com.quarlo.home"}, {}, "activity"},
      {"pm list packages", {}, {"--uid", "x"}, "packages"},
      {"pm version-code", {"com.quarlo.home"}, {}, "delegate"},
      {"pm version-name", {"com.quarlo.home"}, {}, "delegate"},
      {"pm meta-data", {"com.quarlo.home", "com.quarlo.home.cards", "--int"}, {"com.quarlo.home"}, "delegate"},
      {"pm resource", {"com.quarlo.home", "7"}, {"com.quarlo.home", "seven"}, "delegate"},
      {"pm has-feature", {"android.hardware.wifi"}, {}, "delegate"},
      {"pm query-receivers", {"X"}, {}, "delegate"},
      {"event", {"Speaker", "VolumeChanged"}, {"Speaker"}, "events"},
      {"directive", {"Speaker", "--for", "0.05"}, {}, nullptr},  // this process serves it itself
      {"metric", {"a", "b"}, {"a"}, "metrics"},
      {"watch", {"screen", "--for", "0.05"}, {"shoes"}, "delegate"},
      {"doctor", {}, {"extra"}, "delegate"},
  };
  return all;
}

Words wordsOf(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

constexpr int kNotHere = -1;  // where it would depend on how fast the machine is

class ExitStatus : public NoDevice {
 protected:
  // A device of its own in a directory of that name, where programs then are looking for one.
  void serve(const std::string& name) {
    m_environment = environmentIn(name);
    m_devices.push_back(std::make_unique<Process>(Words{"orvel-sim", "run"}, m_environment));
    m_devices.back()->waitForOutput("serving in ");
  }
  Process& device() { return *m_devices.back(); }
  void order(const Words& words) const {
    const Result result = runThere(Words{"orvel-sim"} + words);
    ASSERT_EQ(result.status, 0) << result.error;
  }

  Words environmentIn(const std::string& name) const {
    return {"ORVEL_RUNTIME_DIR=" + (temporary() / name).string(), "ORVEL_CALL_TIMEOUT_MS=" + m_limit};
  }
  Result runThere(const Words& words) const { return test::run(words, m_environment); }

  // Runs all of them at once, `more` behind, and expects of each that status; leaves out those with kNotHere.
  void expectOfAll(const std::string& program, const Words& more, bool good,
                   const std::function<int(const Subcommand&)>& status) {
    for (const Subcommand& each : subcommands()) {
      if (status(each) != kNotHere) start(program, each, good ? each.good : each.wrong, more);
    }
    finish(status);
  }

  void start(const std::string& program, const Subcommand& each, const Words& arguments, const Words& more) {
    const Words words = Words{program} + wordsOf(each.path) + arguments + more;
    m_running.emplace_back(&each, std::make_unique<Process>(words, m_environment));
  }

  void finish(const std::function<int(const Subcommand&)>& status) {
    for (const auto& [each, process] : m_running) {
      SCOPED_TRACE(each->path);
      const int ended = process->wait();
      expectJson({ended, process->output(), process->error()}, status(*each));
    }
    m_running.clear();
  }

  // That it ended so and says so, in no other words than the schema's.
  static json expectJson(const Result& result, int status) {
    EXPECT_EQ(result.status, status) << result.error;
    const std::vector<json> lines = parseLines(result.output);
    const auto is_failure = [](const json& line) { return line.contains("error"); };
    const auto failures = std::count_if(lines.begin(), lines.end(), is_failure);
    EXPECT_EQ(failures, status == 0 ? 0 : 1) << result.output;
    if (failures == 0) return {};
    static const json schema = json::parse(std::ifstream(ORVEL_FAILURE_SCHEMA));
    EXPECT_EQ(testing::whatViolates(schema, schema, lines.back()), "");
    const json& error = lines.back().at("error");
    static const std::map<int, const char*> words = {{1, "failed"},    {2, "usage"},     {3, "no-device"},
                                                     {4, "timed-out"}, {5, "not-bound"}, {143, "interrupted"}};
    EXPECT_EQ(error.at("exitStatus"), status);
    EXPECT_EQ(error.at("status"), words.at(status));
    EXPECT_EQ(result.error.find("{\""), std::string::npos) << "JSON is for standard output: " << result.error;
    return lines.back();
  }

  std::string m_limit = "20000";
  Words m_environment = environmentIn("none");

 private:
  std::vector<std::unique_ptr<Process>> m_devices;
  std::vector<std::pair<const Subcommand*, std::unique_ptr<Process>>> m_running;
};

// As --help lists them: those without subcommands of their own.
void collectLeaves(const std::string& path, std::set<std::string>& leaves) {
  const Result help = test::run(Words{"orvelctl"} + wordsOf(path) + Words{"--help"}, {});
  const std::string heading = "\nSubcommands:\n";
  const std::size_t begin = help.output.find(heading);
  if (begin == std::string::npos) {
    leaves.insert(path);
    return;
  }
  std::istringstream lines(help.output.substr(begin + heading.size()));
  for (std::string line; std::getline(lines, line) && !line.empty();) {
    const std::string name = line.substr(2, line.find_first_of(" ,", 2) - 2);  // an alias follows a comma
    if (!name.empty()) collectLeaves(path + (path.empty() ? "" : " ") + name, leaves);
  }
}

TEST_F(ExitStatus, NoSubcommandIsMissingHere) {
  std::set<std::string> known;
  for (const Subcommand& each : subcommands()) known.insert(each.path);
  std::set<std::string> listed;
  collectLeaves("", listed);
  EXPECT_EQ(listed, known);
}

TEST_F(ExitStatus, IsZeroWhereAllIsWell) {
  serve("device");
  // All at once would make services slow for a doctor.
  const auto isDoctor = [](const Subcommand& each) { return each.path == std::string("doctor"); };
  expectOfAll("orvelctl", {"--json"}, true, [&](const Subcommand& each) { return isDoctor(each) ? kNotHere : 0; });
  expectJson(runThere({"orvelctl", "doctor", "--json"}), 0);
}

TEST_F(ExitStatus, IsTwoForWrongWordsWhereverJsonStands) {
  for (const Subcommand& each : subcommands()) {
    start("orvelctl", each, each.wrong, {"--json", "--frobnicate"});
    const Words words = Words{"--json"} + wordsOf(each.path) + each.wrong + Words{"extra", "extra", "--nonsense"};
    expectJson(runThere(Words{"orvelctl"} + words), 2);
  }
  finish([](const Subcommand&) { return 2; });
  expectOfAll("orvelctl", {"--json"}, false, [](const Subcommand&) { return 2; });
  for (const char* seconds : {"nan", "inf", "-1", "0", "1e400", "1x", ""}) {
    const json failure = expectJson(runThere({"orvelctl", "--json", "--timeout", seconds, "device"}), 2);
    EXPECT_EQ(failure.at("error").at("message"),
              std::string("--timeout: '") + seconds + "' is no number of seconds from 0.001 to 1000000");
  }
}

TEST_F(ExitStatus, IsThreeWithoutADevice) {
  expectOfAll("orvelctl", {"--json"}, true, [](const Subcommand&) { return 3; });
  const json failure = expectJson(runThere({"orvelctl", "--json", "device"}), 3);
  EXPECT_EQ(failure.at("error").at("directory"), (temporary() / "none").string());
}

TEST_F(ExitStatus, IsFourWhenAServiceHangs) {
  serve("device");
  for (const char* service : {"delegate", "power", "activity", "packages", "events", "metrics"}) {
    order({"hang", service});
  }
  const auto in_time = [](const Subcommand& each) { return each.service == nullptr ? kNotHere : 4; };
  expectOfAll("orvelctl", {"--json", "--timeout", "0.4"}, true, in_time);
  m_limit = "400";
  m_environment = environmentIn("device");
  expectOfAll("orvelctl", {"--json"}, true, [](const Subcommand& each) { return each.service == nullptr ? 0 : 4; });
  // One failure in another's company, each with its service.
  const json failure = expectJson(runThere({"orvelctl", "--json", "device"}), 4);
  EXPECT_EQ(failure.at("error").at("query"), "name");
  EXPECT_EQ(failure.at("error").at("service"), "orvel_delegate");
  EXPECT_EQ(failure.at("further").back().at("service"), "com.quarlo.orvel.powermanager");
}

TEST_F(ExitStatus, IsFourWhenTheTimeEndsWhileAServiceIsWaitedFor) {
  serve("device");
  order({"kill", "power"});
  // The doctor looks before it waits.
  const auto status = [](const Subcommand& each) { return each.path == std::string("doctor") ? kNotHere : 4; };
  expectOfAll("orvelctl", {"--json", "--timeout", "0.4"}, true, status);
}

TEST_F(ExitStatus, IsFiveWhenTheServiceIsDead) {
  for (const std::string& dead : Words{"delegate", "power", "activity", "packages", "events", "metrics"}) {
    serve(dead);
    order({"kill", dead});
    for (const Subcommand& each : subcommands()) {
      if (each.service != nullptr && each.service == dead) start("orvelctl-fast", each, each.good, {"--json"});
    }
  }
  finish([](const Subcommand&) { return 5; });
}

TEST_F(ExitStatus, AnInterruptionIsAFailureTooButNotTheEndOfWatching) {
  serve("device");
  for (const auto& [signal, status] : {std::pair(SIGINT, 0), std::pair(SIGTERM, 128 + SIGTERM)}) {
    Process watcher({"orvelctl", "--json", "watch", "screen"}, m_environment);
    watcher.waitForError("watching screen");
    watcher.signal(signal);
    const int ended = watcher.wait();
    expectJson({ended, watcher.output(), watcher.error()}, status);
  }
}

TEST_F(ExitStatus, AnEventThatTheAssistantRefusesIsAResultAndAFailure) {
  serve("device");
  order({"event-result", "TIMEOUT"});
  const Result result = runThere({"orvelctl", "--json", "event", "N", "n"});
  expectJson(result, 1);
  EXPECT_EQ(parseLines(result.output).front().at("result"), "TIMEOUT");
}

TEST_F(ExitStatus, BytesThatAreNoTextDoNotCostTheEnvelope) {
  const json failure = expectJson(runThere({"orvelctl", "--json", "get", "\xff"}), 2);
  EXPECT_NE(failure.at("error").at("message").get<std::string>().find("\xef\xbf\xbd"), std::string::npos);
}

TEST_F(ExitStatus, TheDevicesOwnProgramFailsInTheSameShape) {
  expectJson(runThere({"orvel-sim", "frobnicate", "--json"}), 2);
  expectJson(runThere({"orvel-sim", "--json", "kill", "toaster"}), 2);
  expectJson(runThere({"orvel-sim", "--timeout", "0", "services", "--json"}), 2);
  const std::vector<Words> views = {{"state"}, {"services"}, {"traffic", "--past"}, {"traffic"}, {"metrics"}};
  for (const Words& view : views) expectJson(runThere(Words{"orvel-sim"} + view + Words{"--json"}), 3);

  serve("device");
  EXPECT_EQ(runThere({"orvel-sim", "--timeout", "5", "services"}).status, 0) << "time that is left over hurts nobody";
  expectJson(runThere({"orvel-sim", "--timeout", "0.2", "traffic", "--json"}), 4);
  const Result refused = runThere({"orvel-sim", "--timeout", "5", "run", "--", "/bin/true"});
  EXPECT_EQ(refused.status, 2) << "it would be the command's";
  device().signal(SIGSTOP);
  for (const Words& view : views) {
    expectJson(runThere(Words{"orvel-sim", "--timeout", "0.2"} + view + Words{"--json"}), 4);
  }
  EXPECT_EQ(runThere({"orvel-sim", "--timeout", "0.2", "screen", "off"}).status, 4);
  device().signal(SIGCONT);
  order({"kill", "metrics"});
  expectJson(runThere({"orvel-sim", "metrics", "--json"}), 1);
}

TEST_F(ExitStatus, ASchemaWhoseRulesNobodyChecksIsRefused) {
  const json schema = {{"type", "object"}, {"pattern", "x"}};
  EXPECT_THROW(testing::whatViolates(schema, schema, json::object()), std::runtime_error);
  const json failure = json::parse(std::ifstream(ORVEL_FAILURE_SCHEMA));
  for (const char* wrong : {R"({})", R"({"error":{"status":"failed","exitStatus":1}})",
                            R"({"error":{"status":"lost","exitStatus":1,"message":"m"}})",
                            R"({"error":{"status":"failed","exitStatus":0,"message":"m"}})",
                            R"({"error":{"status":"failed","exitStatus":1,"message":"m","query":""}})",
                            R"({"error":{"status":"failed","exitStatus":1,"message":"m"},"further":[]})"}) {
    EXPECT_NE(testing::whatViolates(failure, failure, json::parse(wrong)), "") << wrong;
  }
}

}  // namespace
}  // namespace orvel::e2e
