// The examples as their users run them. Those called NAME-fast are the same around a clock that runs faster.
#include <signal.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Examples : public Device {
 protected:
  // Until the example has renewed what it subscribed to.
  void killAndRestart(const std::string& service, Process& example) const {
    order("kill " + service, "restart " + service);
    awaitRebinding(example);
  }

  static void expectGoodEnd(Process& example, int signal) {
    example.signal(signal);
    EXPECT_EQ(example.wait(test::Limit(10'000)), 0) << example.error();
  }
};
ORVEL_BOTH_MODES(Examples);

TEST_P(Examples, StatusLineHasALineForEachChangeAndAsksForWhatADeathKeptFromIt) {
  const auto status = start("status-line-fast");
  status->waitForOutput("screen on\n");
  order("set name Hall", "network disconnected", "screen off");
  status->waitForOutput("screen off\n");
  EXPECT_EQ(status->output(),
            "Kitchen Display  network ?  screen on\n"
            "Hall  network ?  screen on\n"
            "Hall  network lost  screen on\n"
            "Hall  network lost  screen off\n");
  killAndRestart("connectivity", *status);
  order("kill delegate", "set name Attic", "screen on", "restart delegate");
  status->waitForOutput("Attic  network lost  screen on\n");
  order("network connected", "screen off", "set name Loft");
  status->waitForOutput("Loft  network connected  screen off\n");
  expectGoodEnd(*status, SIGTERM);
}

// The library's log, on the same terminal, ends the line that is waited for.
TEST_P(Examples, StatusLineRewritesItsLineOnATerminalWhereCtrlCEndsIt) {
  const auto status = start("script -qec 'exec status-line-fast' /dev/null");
  const std::string line = "\r\x1b[?7lKitchen Display  network ?  screen ";
  status->waitForOutput(line + "on\x1b[K\x1b[?7h");
  order("screen off", "kill delegate", "restart delegate");
  status->waitForOutput(line + "off\x1b[K\x1b[?7h");
  status->write("\x03");
  EXPECT_EQ(status->wait(), 0) << status->output();
}

TEST_P(Examples, PackageWatcherTellsTheVersionOfEachPackageThatChangesAfterADeathToo) {
  const auto watcher = start("package-watcher-fast", "Ctrl-C ends");
  order("package install com.example.app --version-name 1.0");
  watcher->waitForOutput(" ADDED com.example.app has version 1.0\n");
  killAndRestart("delegate", *watcher);
  order("package replace com.example.app --version-name 2.0");
  watcher->waitForOutput(" REPLACED com.example.app has version 2.0\n");
  order("package remove com.example.app");
  watcher->waitForOutput(" REMOVED com.example.app is not installed\n");
  expectGoodEnd(*watcher, SIGTERM);
}

TEST_P(Examples, DirectiveHandlerAnswersEachDirectiveWithAnEventAndTellsItsResult) {
  const auto handler = start("directive-handler-fast Alerts", "Ctrl-C ends");
  const std::pair<const char*, const char*> rows[] = {
      {"SUCCESS", "SUCCESS\n"},
      {"TIMEOUT", "TIMEOUT, may be sent again\n"},
      {"SUCCESS --reply 0", "not accepted\n"},
  };
  for (const auto& [result, told] : rows) {
    order(std::string("event-result ") + result, "directive Alerts SetAlert 7:30");
    handler->waitForOutput(std::string("Alerts.SetAlert 7:30\nSetAlertHandled: ") + told);
  }
  expectRows({{"directive-handler Alerts", "", 1, "directive-handler: Alerts: "}});

  for (const char* service : {"coordinator", "events"}) killAndRestart(service, *handler);
  order("event-result SUCCESS_NO_CONTENT", "directive Alerts DeleteAlert");
  handler->waitForOutput("Alerts.DeleteAlert \nDeleteAlertHandled: SUCCESS_NO_CONTENT\n");
  expectGoodEnd(*handler, SIGINT);
}

TEST_P(Examples, LoopsOfOthersRunEachCallbackOnTheirOwnThreadInOrderAndEnd) {
  for (const char* loop : {"loop-sd-event", "loop-glib"}) {
    const auto program = start(loop);
    program->waitForOutput("Kitchen Display\n");
    for (const char* name : {"A", "B", "C", "Kitchen Display"}) order("set name '" + std::string(name) + "'");
    program->waitForOutput("C\nKitchen Display\n");
    EXPECT_EQ(program->output(), "Kitchen Display\nA\nB\nC\nKitchen Display\n") << loop;
    expectGoodEnd(*program, SIGTERM);
  }
}

TEST_P(Examples, AServiceOfOnesOwnTakesThePlaceOfTheDevices) {
  expectRows({{"power-service", "", 1, "another process serves it; try: orvel-sim kill power"}});
  order("kill power");
  const auto power = start("power-service");
  power->waitForOutput("serving com.quarlo.orvel.powermanager in ");
  expectRows({{"orvelctl wait power", nullptr},
              {"orvelctl screen", "off\n"},
              {"orvelctl wake-lock full", "acquired\n"},
              {"orvelctl screen", "on\n"},
              {"orvelctl wake-lock partial", "acquired\n"}});
  power->waitForOutput("awake for 500 ms\n");
  expectGoodEnd(*power, SIGINT);
  order("restart power");
}

TEST_P(Examples, ADeviceWithoutAServiceLeavesItsNameToAnotherProcess) {
  expectRows(
      {{"orvel-sim run --without power -- sh -c 'power-service >$T/log & orvelctl wait power && orvelctl screen; "
        "orvel-sim services | grep -o \"process .*not the device.s\" | sed s/[0-9][0-9]*/N/; kill $!; wait $!; "
        "orvel-sim services | grep -o left.out'",
        "power         up          epoch 1\noff\nprocess N, not the device's\nleft out\n"}});
}

// On the machine's clock, where each would go on for 15 s at least.
TEST_P(Examples, ASignalEndsAStartAndACallThatHangAtOnce) {
  order("kill power");
  for (const char* example : {"loop-glib", "status-line"}) {
    expectGoodEnd(*start(example, "powermanager is not ready yet"), SIGINT);
  }
  order("restart power", "hang delegate getDeviceName");
  const auto asking = start("status-line");
  run("until orvel-sim traffic --past | grep -q 'getDeviceName() hangs'; do sleep 0.02; done");
  expectGoodEnd(*asking, SIGINT);
}

}  // namespace
}  // namespace orvel::e2e
