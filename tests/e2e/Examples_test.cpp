// The examples as their users run them. Those called NAME-fast are the same around a clock that runs faster.
#include <signal.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Examples : public Device {
 protected:
  // Up to the line that says that it has subscribed.
  std::unique_ptr<Process> startWatching(const Words& words, const char* ready = "Ctrl-C ends") const {
    auto example = start(words);
    example->waitForError(ready);
    return example;
  }

  // Until the example has renewed what it subscribed to.
  void killAndRestart(const char* service, Process& example) const {
    order({"kill", service});
    order({"restart", service});
    example.waitForError("on_binder_died:Death callback completed");
  }

  static void expectGoodEnd(Process& example, int signal) {
    example.signal(signal);
    EXPECT_EQ(example.wait(), 0) << example.error();
  }
};

INSTANTIATE_TEST_SUITE_P(, Examples, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "Together"; });

TEST_P(Examples, StatusLineHasALineForEachChangeAndNoneForWhatStays) {
  const auto status = start({"status-line"});
  status->waitForOutput("screen on\n");
  for (const Words& change : {Words{"set", "name", "Hall"}, {"network", "disconnected"}, {"screen", "off"}}) {
    order(change);
    order(change);
  }
  status->waitForOutput("screen off\n");
  expectGoodEnd(*status, SIGINT);
  EXPECT_EQ(status->output(),
            "Kitchen Display  network ?  screen on\n"
            "Hall  network ?  screen on\n"
            "Hall  network lost  screen on\n"
            "Hall  network lost  screen off\n");
}

TEST_P(Examples, StatusLineAsksForWhatADeathKeptFromIt) {
  const auto status = start({"status-line-fast", "1"});
  status->waitForOutput("Kitchen Display");
  order({"kill", "delegate"});
  order({"set", "name", "Attic"});
  order({"screen", "off"});
  order({"restart", "delegate"});
  status->waitForOutput("Attic  network ?  screen on\n");
  status->waitForError("on_binder_died:Death callback completed");
  order({"screen", "on"});
  order({"set", "name", "Loft"});
  status->waitForOutput("Loft  network ?  screen on\n");
  expectGoodEnd(*status, SIGTERM);
}

// The library's log, on the same terminal, ends the line that is waited for.
TEST_P(Examples, StatusLineRewritesItsLineOnATerminalWhereCtrlCEndsIt) {
  const auto status = start({"/usr/bin/script", "-qec", "exec " ORVEL_BIN "/status-line 1", "/dev/null"});
  const std::string line = "\r\x1b[?7lKitchen Display  network ?  screen ";
  status->waitForOutput(line + "on\x1b[K\x1b[?7h");
  order({"screen", "off"});
  status->waitForOutput(line + "off\x1b[K\x1b[?7h");
  status->write("\x03");
  EXPECT_EQ(status->wait(), 0) << status->output();
}

TEST_P(Examples, PackageWatcherTellsTheVersionOfEachPackageThatChangesAfterADeathToo) {
  const auto watcher = startWatching({"package-watcher-fast"});
  order({"package", "install", "com.example.app", "--version-name", "1.0"});
  watcher->waitForOutput(" ADDED com.example.app has version 1.0\n");
  killAndRestart("delegate", *watcher);
  order({"package", "replace", "com.example.app", "--version-name", "2.0"});
  watcher->waitForOutput(" REPLACED com.example.app has version 2.0\n");
  order({"package", "remove", "com.example.app"});
  watcher->waitForOutput(" REMOVED com.example.app is not installed\n");
  expectGoodEnd(*watcher, SIGTERM);
}

TEST_P(Examples, DirectiveHandlerAnswersEachDirectiveWithAnEventAndTellsItsResult) {
  const auto handler = startWatching({"directive-handler-fast", "Alerts"});
  const struct {
    Words results;
    const char* lines;
  } rows[] = {
      {{"SUCCESS"}, "Alerts.SetAlert 7:30\nSetAlertHandled: SUCCESS\n"},
      {{"TIMEOUT"}, "Alerts.SetAlert 7:30\nSetAlertHandled: TIMEOUT, may be sent again\n"},
      {{"SUCCESS", "--reply", "0"}, "Alerts.SetAlert 7:30\nSetAlertHandled: not accepted\n"},
  };
  for (const auto& row : rows) {
    order(Words{"event-result"} + row.results);
    order({"directive", "Alerts", "SetAlert", "7:30"});
    handler->waitForOutput(row.lines);
  }
  const Result second = run({"directive-handler", "Alerts"});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.error.find("another process has the namespace Alerts"), std::string::npos) << second.error;

  for (const char* service : {"coordinator", "events"}) killAndRestart(service, *handler);
  order({"event-result", "SUCCESS_NO_CONTENT"});
  order({"directive", "Alerts", "DeleteAlert"});
  handler->waitForOutput("Alerts.DeleteAlert \nDeleteAlertHandled: SUCCESS_NO_CONTENT\n");
  expectGoodEnd(*handler, SIGINT);
}

TEST_P(Examples, CtrlCEndsAStartThatWaitsForAServiceAsItEndsEverythingElse) {
  order({"kill", "connectivity"});
  for (const Words& words : {Words{"status-line"}, {"package-watcher"}, {"directive-handler", "Alerts"}}) {
    const auto example = startWatching(words, "androidconnectivitymanager is not ready yet");
    expectGoodEnd(*example, SIGINT);
    EXPECT_EQ(example->error().find("no device"), std::string::npos) << example->error();
  }
}

TEST_F(NoDevice, ExamplesSayWhatIsMissing) {
  const struct {
    Words words;
    int status;
    const char* error;
  } rows[] = {
      {{"status-line"}, 1, "status-line: there is no device"},
      {{"package-watcher"}, 1, "package-watcher: there is no device"},
      {{"directive-handler", "Alerts"}, 1, "directive-handler: there is no device"},
      {{"directive-handler"}, 2, "usage: directive-handler NAMESPACE"},
      {{"directive-handler", ""}, 2, "usage: directive-handler NAMESPACE"},
      {{"status-line", "0"}, 2, "usage: status-line [SECONDS]"},
      {{"status-line", "soon"}, 2, "usage: status-line [SECONDS]"},
  };
  for (const auto& row : rows) {
    const Result result = run(row.words);
    EXPECT_EQ(result.status, row.status) << row.words[0];
    EXPECT_NE(result.error.find(row.error), std::string::npos) << result.error;
  }
}

}  // namespace
}  // namespace orvel::e2e
