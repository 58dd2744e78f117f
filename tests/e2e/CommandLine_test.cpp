// What a person types and gets: results, messages, exit statuses.
#include <signal.h>

#include <fstream>

#include "Device.h"

namespace orvel::e2e {
namespace {

TEST_F(NoDevice, AMissingOrKilledDeviceIsSaidInOneLineWithItsDirectory) {
  const auto expect_no_device = [&](const Words& words) {
    const Result result = run(words);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.error.find(directory()), std::string::npos) << result.error;
    EXPECT_EQ(result.error.find('\n'), result.error.size() - 1) << "not one line: " << result.error;
  };
  expect_no_device({"orvelctl", "device"});
  expect_no_device({"orvel-sim", "state"});

  const auto device = start({"orvel-sim", "run"});
  device->waitForOutput("serving in ");
  device->signal(SIGKILL);
  device->wait();
  EXPECT_TRUE(std::filesystem::exists(directory()));
  expect_no_device({"orvelctl", "get", "name"});
  expect_no_device({"orvel-sim", "screen", "on"});
}

TEST_F(NoDevice, WrongWordsListWhatThereIs) {
  const struct {
    Words words;
    const char* expected;
  } rows[] = {
      {{"orvelctl", "frobnicate"}, "there are device, get, setting"},
      {{"orvelctl", "get", "shoe-size"}, "serial-number"},
      {{"orvelctl", "setting", ""}, "key: it is empty"},
      {{"orvelctl", "setting", "k", "--default", "99999999999"}, "--default"},
      {{"orvelctl", "device", "--log-level", "loud"}, "warning"},
      {{"orvelctl", "am"}, "am: a subcommand is required; there are broadcast, "},
      {{"orvelctl", "am", "broadcast", "-a", "X", "--ei", "k", "99999999999"}, "--ei k: expected a number of 32 bits"},
      {{"orvelctl", "am", "start", "-a", "X", "--es", "k", "1", "--es", "k", "2"}, "--es k: given twice"},
      {{"orvelctl", "am", "start", "-n", "com.example.app"}, "expected PACKAGE/CLASS"},
      {{"orvelctl", "am", "start", "-n", "a/.B", "c/.D"}, "'c/.D' and --component exclude each other"},
      {{"orvel-sim", "frobnicate"}, "set, unset, screen"},
      {{"orvel-sim", "kill", "toaster"}, "no service is called toaster; there are delegate, power"},
      {{"orvel-sim", "delay", "power", "getName", "5"}, "isInteractive, wakeUpDevice, getVersion"},
      {{"orvel-sim", "delay", "power"}, "a number or off is expected"},
      {{"orvel-sim", "set", "shoeSize", "42"}, "delegate serialNumber TEXT"},
      {{"orvel-sim", "set", "screenOn", "maybe"}, "/power/screenOn: expected true or false"},
  };
  for (const auto& row : rows) {
    const Result result = run(row.words);
    EXPECT_EQ(result.status, 2) << row.words[1];
    EXPECT_NE(result.error.find(row.expected), std::string::npos) << result.error;
  }
}

TEST_F(NoDevice, AWrongScenarioIsRefusedWithThePathOfWhatIsWrong) {
  const struct {
    const char* scenario;
    const char* expected;
  } rows[] = {
      {R"({"delegate": {"settings": {"foo": 7}}})", "/delegate/settings/foo: expected a string"},
      {R"({"delegate": {"nmae": "x"}})", "/delegate/nmae: unknown key; there are name"},
      {R"({"delegate": {"info": ["a", 2]}})", "/delegate/info/1: expected a string"},
      {R"({"power": {"interfaceVersion": 1.5}})", "/power/interfaceVersion: expected a whole number"},
      {R"({"power": {"faults": {"isInteractiv": {}}}})", "/power/faults/isInteractiv: unknown key"},
      {R"({"power": {"faults": {"*": {"delayMs": -1}}}})", "/power/faults/*/delayMs: expected a whole number from 0"},
      {R"({"delegate": {"name": "a\u0000b"}})", "/delegate/name: holds a NUL"},
      {"[]", "/: expected an object"},
      {"{\n\"power\": {,}}", "line 2"},
  };
  const std::string file = temporary() / "scenario.json";
  for (const auto& row : rows) {
    std::ofstream(file) << row.scenario;
    const Result result = run({"orvel-sim", "run", "--scenario", file, "--", "/bin/true"});
    EXPECT_EQ(result.status, 2) << row.scenario;
    EXPECT_NE(result.error.find(row.expected), std::string::npos) << result.error;
  }
}

TEST_F(NoDevice, ACommandGetsADeviceOfItsOwnAndNothingStaysBehind) {
  const struct {
    Words command;
    int status;
  } rows[] = {
      {{"/bin/sh", "-c", "test \"$ORVEL_RUNTIME_DIR\" != \"$0\"", directory()}, 0},
      {{"/bin/sh", "-c", ORVEL_BIN "/orvelctl get name; exit 7"}, 7},
      {{"/bin/sh", "-c", "kill -9 $$"}, 137},
      {{"/nonexistent"}, 127},
  };
  for (const Words& mode : {Words{}, Words{"--isolate"}}) {
    for (const auto& row : rows) {
      const Result result = run(Words{"orvel-sim", "run"} + mode + Words{"--"} + row.command);
      EXPECT_EQ(result.status, row.status) << result.error;
    }
  }
  const auto device = start({"orvel-sim", "run", "--isolate", "--", "/bin/sh", "-c",
                             "trap 'echo told; exit 5' TERM; echo up; while :; do sleep 0.01; done"});
  device->waitForOutput("up");
  device->signal(SIGTERM);
  EXPECT_EQ(device->wait(), 5);
  EXPECT_TRUE(std::filesystem::is_empty(temporary()));
}

TEST_F(NoDevice, WhatStateShowsIsAScenarioThatGivesTheSameDevice) {
  const std::string file = temporary() / "scenario.json";
  std::ofstream(file) << R"({"delegate": {"name": "Büro 💡", "customerId": "", "settings": {"k": "-3"}},
                             "power": {"screenOn": false, "faults": {"getVersion": {"exception": {"code": -8}}}}})";
  const Result state = run({"orvel-sim", "run", "--scenario", file, "--", ORVEL_BIN "/orvel-sim", "state"});
  std::ofstream(file) << state.output;
  const auto with_it = [&](const Words& query) {
    return run(Words{"orvel-sim", "run", "--scenario", file, "--", ORVEL_BIN "/orvelctl"} + query);
  };
  EXPECT_EQ(with_it({"get", "name"}).output, "Büro 💡\n");
  EXPECT_EQ(with_it({"get", "registered"}).output, "no\n");
  EXPECT_EQ(with_it({"setting", "k"}).output, "-3\n");
  EXPECT_EQ(with_it({"screen"}).output, "off\n");
  EXPECT_EQ(with_it({"wake-lock", "partial"}).status, 1);
}

TEST_P(Device, EachQueryPrintsItsValueAsTextAndAsOneObject) {
  const struct {
    Words query;
    const char* text;
    const char* object;
  } rows[] = {
      {{"get", "name"}, "Kitchen Display\n", R"({"name":"Kitchen Display"})"},
      {{"get", "serial-number"}, "OQ24-0713-5521\n", R"({"serialNumber":"OQ24-0713-5521"})"},
      {{"get", "type"}, "QDT-DISPLAY-8\n", R"({"type":"QDT-DISPLAY-8"})"},
      {{"get", "customer-id"}, "quarlo.account.7Q2M4X\n", R"({"customerId":"quarlo.account.7Q2M4X"})"},
      {{"get", "country"}, "DE\n", R"({"country":"DE"})"},
      {{"get", "marketplace"}, "QMP-DE-01\n", R"({"marketplace":"QMP-DE-01"})"},
      {{"get", "registered"}, "yes\n", R"({"registered":true})"},
      {{"setting", "some_key", "--default", "-7"}, "-7\n", R"({"key":"some_key","value":-7})"},
      {{"setting", "volume_alarm"}, "5\n", R"({"key":"volume_alarm","value":5})"},
      {{"screen"}, "on\n", R"({"screenOn":true})"},
      {{"assistant"}, "connected\n", R"({"assistantConnected":true})"},
      {{"network"}, "disconnected\n", R"({"networkConnected":false})"},
      {{"wake-lock", "partial"}, "acquired\n", R"({"wakeLock":"partial","acquired":true})"},
      {{"wake-lock", "full"}, "acquired\n", R"({"wakeLock":"full","acquired":true})"},
  };
  for (const auto& row : rows) {
    const Result text = run(Words{"orvelctl"} + row.query);
    EXPECT_EQ(text.status, 0) << text.error;
    EXPECT_EQ(text.output, row.text);
    EXPECT_EQ(run(Words{"orvelctl"} + row.query + Words{"--json"}).output, std::string(row.object) + "\n");
  }
  EXPECT_EQ(run({"orvelctl", "--json", "device"}).output,
            R"({"name":"Kitchen Display","serialNumber":"OQ24-0713-5521","type":"QDT-DISPLAY-8",)"
            R"("customerId":"quarlo.account.7Q2M4X","country":"DE","marketplace":"QMP-DE-01","registered":true,)"
            R"("screenOn":true,"assistantConnected":true})"
            "\n");
}

TEST_P(Device, AFailureIsToldFromAnEmptyResultByItsStatus) {
  order({"set", "setting", "word", "seven"});
  order({"set", "power", "interfaceVersion", "1"});
  order({"exception", "delegate", "getDeviceName", "--code", "-8", "--message", "boom", "--trace", "at work"});
  order({"truncate", "delegate", "getCOR", "4"});
  order({"hang", "delegate", "getPFM"});
  shortenCallLimit();
  const struct {
    Words query;
    int status;
    const char* output;
    const char* error;
  } rows[] = {
      {{"get", "name"}, 1, "", "Received error: -8 [boom]"},
      {{"get", "name"}, 1, "", "Stack Trace: at work"},
      {{"get", "country"}, 0, "\n", ""},
      {{"get", "marketplace"}, 4, "", "did not answer in time"},
      {{"get", "marketplace", "--timeout", "0.1"}, 4, "", "gave up after 0.1 s"},
      {{"setting", "word"}, 1, "", "setting word: its value is not a number"},
      {{"wake-lock", "partial"}, 1, "", "not available in interface version 1"},
      {{"device", "--json"}, 1, R"("country":"","marketplace":null,)", ""},
      {{"device"}, 1, "marketplace    ?\n", ""},
  };
  for (const auto& row : rows) {
    const Result result = run(Words{"orvelctl"} + row.query);
    EXPECT_EQ(result.status, row.status) << result.error;
    EXPECT_NE(result.output.find(row.output), std::string::npos) << result.output;
    EXPECT_NE(result.error.find(row.error), std::string::npos) << result.error;
  }
}

TEST_P(Device, AnAbsentServiceIsNamedAndAnInterruptEndsTheWait) {
  order({"kill", "delegate"});
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto waiting = start({"orvelctl", "get", "name"});
    waiting->waitForError("waiting for service orvel_delegate");
    waiting->signal(signal);
    EXPECT_EQ(waiting->wait(), 128 + signal);
    EXPECT_EQ(waiting->output(), "");
  }
}

TEST_F(NoDevice, AServiceThatWasGivenUpIsStatus5) {
  const char* script = ORVEL_BIN "/orvel-sim kill power; exec " ORVEL_BIN "/orvelctl-fast --log-level silent screen";
  const Result result = run({"orvel-sim", "run", "--", "/bin/sh", "-c", script});
  EXPECT_EQ(result.status, 5);
  EXPECT_NE(result.error.find("screen: service com.quarlo.orvel.powermanager is not bound"), std::string::npos)
      << result.error;
}

TEST_P(Device, WhatCannotBeWrittenIsAFailure) {
  for (const char* command : {"orvelctl get name", "orvelctl --help", "orvel-sim state"}) {
    for (const char* nowhere : {" >/dev/full", " >&-"}) {
      const Result result = run({"/bin/sh", "-c", std::string("exec " ORVEL_BIN "/") + command + nowhere});
      EXPECT_EQ(result.status, 1) << command << nowhere;
      EXPECT_NE(result.error.find("cannot write to standard output"), std::string::npos) << result.error;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(, Device, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "InOneProcess"; });

}  // namespace
}  // namespace orvel::e2e
