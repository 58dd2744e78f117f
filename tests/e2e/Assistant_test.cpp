// The assistant and the metrics, as the command line and the device see each other.
#include <signal.h>

#include <fstream>
#include <tuple>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Assistant : public Device {
 protected:
  std::unique_ptr<Process> hold(const Words& words, const char* program = "orvelctl") const {
    auto holder = start(Words{program, "directive", "--json"} + words);
    holder->waitForError("orvelctl: watching ");
    return holder;
  }
};

TEST_P(Assistant, EveryResultIsToldWithItsAdviceAndItsStatus) {
  const std::tuple<Words, int, const char*> rows[] = {
      {{"SUCCESS"}, 0, "SUCCESS\n"},
      {{"SUCCESS_NO_CONTENT", "--before"}, 0, "SUCCESS_NO_CONTENT\n"},
      {{"MARO_DISCONNECTED", "--twice"}, 1, "MARO_DISCONNECTED, may be tried again\n"},
      {{"INTERNAL_ERROR", "--delay", "20"}, 1, "INTERNAL_ERROR, may be tried again\n"},
      {{"TIMEOUT"}, 1, "TIMEOUT, may be tried again\n"},
      {{"INVALID_EVENT"}, 1, "INVALID_EVENT, not to be tried again\n"},
      {{"-1"}, 1, "UNKNOWN_ERROR, may be tried again\n"},
      {{"SUCCESS", "--malformed"}, 1, "UNKNOWN_ERROR, may be tried again\n"},
      {{"SUCCESS", "--never"}, 4, ""},
      {{"SUCCESS", "--reply", "2"}, 1, ""},
  };
  for (const auto& [result, status, output] : rows) {
    order(Words{"event-result"} + result);
    const Result told = run({"orvelctl", "event", "N", "n", "--timeout", status == 4 ? "0.2" : "20"});
    EXPECT_EQ(told.status, status) << told.error;
    EXPECT_EQ(told.output, output);
  }
}

TEST_P(Assistant, AnEventArrivesWholeAndADeathEndsTheWaitForItsResult) {
  std::ofstream(temporary() / "long") << std::string(1 << 20, 'p');
  run({"orvelctl", "event", "N", "long", "--payload-file", temporary() / "long"});
  order({"event-result", "0", "--delay", "60000"});
  const auto waiting = start({"orvelctl", "event", "Alerts", "Set", "a", "", "c", "--flag", "--payload", "é"});
  start({"orvel-sim", "traffic"})->waitForOutput("events.sendEvent(metadata: ");
  const auto traffic = view({"traffic", "--past"});
  EXPECT_NE(traffic.at(0)["arguments"].get<std::string>().find("pp... (104"), std::string::npos) << "shortened";
  EXPECT_EQ(traffic.at(2)["arguments"]["payload"], "é") << "behind an event and its result";
  EXPECT_EQ(traffic.at(2)["arguments"]["metadata"], nlohmann::json::parse(R"({"namespace": "Alerts", "name": "Set",
      "event3": "a", "event4": null, "event5": "c", "event6": null, "event7": null, "flag": true})"));
  order({"kill", "events"});
  EXPECT_EQ(waiting->wait(), 5);
}

TEST_P(Assistant, ADirectiveReachesTheOneHolderOfItsNamespaceAndThenItsSuccessor) {
  auto alerts = hold({"Alerts"});
  const auto speaker = hold({"Speaker"});
  const Result refused = run({"orvelctl", "directive", "Alerts"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.error.find("Internal:vesk service register failed. nspace=Alerts, err=-98"), std::string::npos);
  order({"directive", "Alerts", "a", "b", "c", "d", "e", "f", "g"});
  order({"directive", "Speaker", "-3"});
  EXPECT_EQ(alerts->waitForOutput("\"texts\":"), R"(["a","b","d","c","e","f","g"]})");
  EXPECT_EQ(speaker->waitForOutput("\"namespace\":"), R"("Speaker","texts":["-3","","","","","",""]})");
  alerts.reset();  // killed
  EXPECT_EQ(run({"orvel-sim", "directive", "Alerts"}).error, "orvel-sim: no client holds the namespace Alerts\n");
  alerts = hold({"Alerts"});
  const std::string sent = run({"orvel-sim", "directive", "Alerts", "next"}).output;
  EXPECT_EQ(sent, "sent to process " + std::to_string(alerts->pid()) + "\n");
  EXPECT_EQ(alerts->waitForOutput("\"texts\":"), R"(["next","","","","","",""]})");
}

TEST_P(Assistant, AfterTheCoordinatorsDeathEachNamespaceGetsEachDirectiveOnce) {
  const auto holder = hold({"--log-level", "info", "--count", "6", "Alerts", "Speaker"}, "orvelctl-fast");
  for (const char* text : {"before", "after", "last"}) {
    for (const char* nspace : {"Alerts", "Speaker"}) order({"directive", nspace, text});
    if (*text != 'b') continue;
    for (int line = 0; line < 2; ++line) holder->waitForOutput("before");
    if (GetParam()) ::kill(view({"services"}).at(6)["pid"].get<pid_t>(), SIGKILL);
    if (!GetParam()) order({"restart", "coordinator"});
    holder->waitForError("on_binder_died:Death callback completed");
  }
  EXPECT_EQ(holder->wait(), 0);
  std::string texts[2];
  for (auto& row : parseLines(holder->output())) texts[row["namespace"] == "Alerts" ? 0 : 1] += row["texts"][0].dump();
  for (const std::string& each : texts) EXPECT_EQ(each, R"("before""after""last")");
}

TEST_P(Assistant, MetricsAreListedAsTheyWereRecordedUntilTheServiceDies) {
  run(Words{"orvelctl", "metric", "App", "Start", "--string", "s", "x y", "--long", "l", "-9223372036854775808"} +
      Words{"--double", "d", "0.1", "--timestamp", "t", "5", "--boolean", "b", "false", "--predefined", "Model"});
  EXPECT_EQ(run({"orvelctl", "metric", "App", "Stop"}).output, "recorded\n");
  EXPECT_EQ(view({"metrics"}).at(0)["fields"],
            nlohmann::json::parse(R"([{"key": "_Model", "type": "predefined", "value": 5},
      {"key": "b", "type": "boolean", "value": false}, {"key": "d", "type": "double", "value": 0.1},
      {"key": "l", "type": "long", "value": -9223372036854775808}, {"key": "s", "type": "string", "value": "x y"},
      {"key": "t", "type": "timestamp", "value": 5}])"));
  EXPECT_EQ(run({"orvel-sim", "metrics", "--last", "1"}).output.substr(12), "  \"App\" \"Stop\"\n");
  order({"restart", "metrics"});
  EXPECT_EQ(view({"metrics"}).size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(, Assistant, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "InOneProcess"; });

}  // namespace
}  // namespace orvel::e2e
