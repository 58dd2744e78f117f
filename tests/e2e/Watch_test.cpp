// Notifications from the device's change to the printed line.
#include <signal.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Watching : public Device {
 protected:
  std::unique_ptr<Process> watch(const Words& words, const char* program = "orvelctl") const {
    auto watcher = start(Words{program, "watch"} + words);
    watcher->waitForError("orvelctl: watching ");
    return watcher;
  }
};

// Each is as long as the milliseconds since 1970 will be for centuries.
std::string withoutTimes(std::string lines) {
  const std::string key = "\"timeMs\":";
  for (std::size_t at = 0; (at = lines.find(key)) != std::string::npos;) lines.erase(at, key.size() + 14);
  return lines;
}

TEST_P(Watching, EachVerbOfTheDeviceIsOneLineAndAValueThatStaysIsNone) {
  const struct {
    Words order;
    const char* line;  // empty: none
  } rows[] = {
      {{"set", "name", "Hall"}, R"({"kind":"name","name":"Hall"})"},
      {{"set", "name", "Hall"}, ""},
      {{"account", "removed"}, R"({"kind":"registration","registered":false})"},
      {{"account", "added"}, R"({"kind":"registration","registered":true})"},
      {{"maro", "disconnected"}, R"({"kind":"assistant","connected":false})"},
      {{"screen", "off"}, R"({"kind":"screen","on":false})"},
      {{"screen", "off"}, ""},
      {{"package", "replaced", "a.b"},
       R"({"kind":"package","action":"android.intent.action.PACKAGE_REPLACED","package":"a.b"})"},
      {{"broadcast", "android.intent.action.PACKAGE_ADDED", "--data", "package:c.d"},
       R"({"kind":"package","action":"android.intent.action.PACKAGE_ADDED","package":"c.d"})"},
      {{"broadcast", "android.intent.action.PACKAGE_ADDED", "--data", "http://x"}, ""},
      {{"broadcast", "android.intent.action.SCREEN_ON", "--type", "text/plain"}, ""},
      {{"time-sync", "5", "1795000000000"}, R"({"kind":"time","oldMs":5,"newMs":1795000000000})"},
      {{"set", "setting", "k", "-3"}, R"({"kind":"setting","key":"k","value":-3})"},
      {{"set", "setting", "other", "1"}, ""},
      {{"set", "setting", "k", "no number"}, ""},
      {{"unset", "setting", "k"}, R"({"kind":"setting","key":"k","value":0})"},
  };
  const auto watcher =
      watch({"--json", "name", "registration", "assistant", "screen", "package", "time", "setting:k", "--count", "10"});
  std::string expected;
  for (const auto& row : rows) {
    order(row.order);
    if (*row.line != '\0') expected += std::string(row.line) + "\n";
  }
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(withoutTimes(watcher->output()), expected);
  EXPECT_NE(watcher->error().find("threw"), std::string::npos) << "the setting that is no number: " << watcher->error();
}

TEST_P(Watching, TheEndIsPromptAndGoodHoweverItComes) {
  const auto interrupted = watch({"network", "screen"});
  order({"network", "disconnected"});
  EXPECT_EQ(interrupted->waitForOutput("network  "), "     disconnected") << "written at once, into a pipe too";
  interrupted->signal(SIGINT);
  EXPECT_EQ(interrupted->wait(), 0);
  const auto terminated = watch({});
  terminated->signal(SIGTERM);
  EXPECT_EQ(terminated->wait(), 128 + SIGTERM);
  EXPECT_EQ(run({"orvelctl", "watch", "--for", "0.05", "name"}).status, 0);
}

TEST_P(Watching, AReaderThatDoesNotReadCannotKeepItFromEnding) {
  const auto watcher =
      start({"/bin/sh", "-c",
             "mkfifo $TMPDIR/lines; exec 3<>$TMPDIR/lines; exec " ORVEL_BIN "/orvelctl watch package >$TMPDIR/lines"});
  watcher->waitForError("orvelctl: watching ");
  // More than a pipe holds.
  const std::string name(9000, 'x');
  for (int n = 0; n < 10; ++n) order({"package", "added", name});
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);
}

TEST_P(Watching, AClientThatNeverAnswersHoldsUpNobodyAndADeadOneIsForgotten) {
  const auto stopped = watch({"screen", "setting:k"});
  const auto live = watch({"--json", "--count", "3", "screen", "setting:k"});
  stopped->signal(SIGSTOP);
  order({"set", "setting", "k", "1"});
  order({"screen", "off"});
  order({"set", "setting", "k", "2"});
  EXPECT_EQ(live->wait(), 0);
  stopped->signal(SIGCONT);
  EXPECT_NE(stopped->waitForOutput("screen"), "") << "late, but not lost";
  EXPECT_EQ(run({"orvel-sim", "broadcast", "android.intent.action.SCREEN_ON"}).output, "sent to 1 receiver\n");
  stopped->signal(SIGKILL);
  stopped->wait();
  EXPECT_EQ(run({"orvel-sim", "broadcast", "android.intent.action.SCREEN_ON"}).output, "sent to 0 receivers\n");
}

TEST_P(Watching, AfterADeathAllIsHeardAgainButTheNetwork) {
  const auto watcher = watch({"--log-level", "info", "--json", "--count", "2", "network", "screen"}, "orvelctl-fast");
  for (const char* service : {"connectivity", "delegate"}) {
    order({"kill", service});
    order({"restart", service});
    watcher->waitForError("on_binder_died:Death callback completed");
  }
  order({"network", "disconnected"});
  order({"screen", "off"});
  order({"screen", "on"});
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(watcher->output().find("network"), std::string::npos) << watcher->output();
}

TEST_F(NoDevice, WatchSaysWhatItCannotWatch) {
  for (const char* kind : {"shoes", "setting:", "setting", ""}) {
    const Result result = run({"orvelctl", "watch", kind});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.error.find("setting:"), std::string::npos) << result.error;
  }
  EXPECT_EQ(run({"orvelctl", "watch"}).status, 3);
  const Result refused = run({"orvel-sim", "run", "--", "/bin/sh", "-c",
                              ORVEL_BIN "/orvel-sim exception delegate registerForSecureSettings; exec " ORVEL_BIN
                                        "/orvelctl watch screen setting:k"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.error.find("watching setting:k: the call failed"), std::string::npos) << refused.error;
  EXPECT_NE(run({"orvelctl", "watch", "--help"}).output.find("The network is the exception"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(, Watching, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "InOneProcess"; });

}  // namespace
}  // namespace orvel::e2e
