// What a person types and gets: results, messages, exit statuses.
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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
      {{"orvel-sim", "delay", "power", "-5"}, "a number or off is expected"},
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

TEST_P(Device, WhatCannotBeWrittenIsAFailureSaidInOneLine) {
  order({"set", "name", std::string(20'000, 'x')});  // more than is kept back before it is written
  const char* nowhere[] = {" >/dev/full", " >&-", " >&4 4>&-"};
  for (const char* command :
       {"orvelctl get name", "orvelctl --json device", "orvelctl pm list packages", "orvelctl doctor",
        "orvelctl --json doctor", "orvelctl --help", "orvelctl --help-all", "orvel-sim state", "orvel-sim state --json",
        "orvel-sim services --json", "orvel-sim traffic --past", "orvel-sim --help"}) {
    for (const char* redirection : nowhere) {
      // Descriptor 4 is a pipe that nobody reads.
      const std::string script =
          "mkfifo $TMPDIR/p; exec 3<>$TMPDIR/p 4>$TMPDIR/p 3<&-; rm $TMPDIR/p; exec " ORVEL_BIN "/";
      const Result result = run({"/bin/sh", "-c", script + command + redirection});
      EXPECT_EQ(result.status, 1) << command << redirection;
      EXPECT_NE(result.error.find("cannot write to standard output: "), std::string::npos) << result.error;
      EXPECT_EQ(result.error.find('\n'), result.error.size() - 1) << command << redirection << ":\n" << result.error;
    }
  }
  const auto watcher = start({"/bin/sh", "-c", "exec " ORVEL_BIN "/orvelctl --json watch screen >/dev/full"});
  watcher->waitForError("orvelctl: watching ");
  order({"screen", "off"});
  EXPECT_EQ(watcher->wait(), 1);
}

TEST_F(NoDevice, ADeviceThatCannotSayThatItServesEnds) {
  EXPECT_EQ(run({"/bin/sh", "-c", "exec " ORVEL_BIN "/orvel-sim run >/dev/full"}).status, 1);
}

// What a program writes to a terminal of the kind.
std::string onTerminal(const Words& words, const Words& environment) {
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    for (const std::string& variable : environment) putenv(const_cast<char*>(variable.c_str()));
    std::vector<char*> pointers;
    for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    execv((ORVEL_BIN "/" + words.front()).c_str(), pointers.data());
    _exit(127);
  }
  std::string text;
  char bytes[512];
  for (ssize_t size = 0; (size = read(terminal, bytes, sizeof(bytes))) > 0;)
    text.append(bytes, static_cast<std::size_t>(size));
  close(terminal);
  waitpid(child, nullptr, 0);
  return text;
}

TEST_F(NoDevice, ColoursAreForTerminalsThatShowThemAndPeopleWhoWantThem) {
  const struct {
    Words variables;
    bool coloured;
  } rows[] = {
      {{"TERM=xterm", "NO_COLOR="}, true},
      {{"TERM=xterm", "NO_COLOR=1"}, false},
      {{"TERM=dumb", "NO_COLOR="}, false},
      {{"TERM=", "NO_COLOR="}, false},
  };
  for (const Words& words : {Words{"orvelctl", "get", "shoe-size"}, Words{"orvelctl", "doctor"},
                             Words{"orvel-sim", "kill", "toaster"}, Words{"orvel-sim", "frobnicate"}}) {
    for (const auto& row : rows) {
      const std::string text = onTerminal(words, environment() + row.variables);
      EXPECT_EQ(text.find("\x1b[1;31m") != std::string::npos, row.coloured) << row.variables.front() << ": " << text;
      EXPECT_EQ(text.find('\x1b') != std::string::npos, row.coloured) << text;
    }
    const Result piped = test::run(words, environment() + Words{"TERM=xterm", "NO_COLOR="});
    EXPECT_EQ((piped.output + piped.error).find('\x1b'), std::string::npos) << piped.error;
  }
}

INSTANTIATE_TEST_SUITE_P(, Device, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "InOneProcess"; });

}  // namespace
}  // namespace orvel::e2e
