// `orvel-sim run -- COMMAND`: a device that no other program sees, of which nothing is left; and the scenarios that
// come with the program, each run so and asked.
#include <signal.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

namespace fs = std::filesystem;

class Hermetic : public NoDevice {
 protected:
  // A process with this test's directory for temporary files is one of its programs, or was left by one.
  Words processesLeft() const {
    Words left;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
      if (!has(contentOf(entry.path() / "environ"), "TMPDIR=" + temporary().string() + '\0')) continue;
      left.push_back(entry.path().filename().string() + " " + contentOf(entry.path() / "comm"));
    }
    return left;
  }

  Words filesLeft() const {
    Words left;
    for (const auto& entry : fs::directory_iterator(temporary())) left.push_back(entry.path().filename());
    return left;
  }
};
const Words kNone;

TEST_F(Hermetic, EightAtOnceSeeEachItsOwnAndLeaveNothing) {
  std::vector<std::unique_ptr<Process>> running;
  for (int n = 0; n < 8; ++n) {
    const std::string number = std::to_string(n);
    running.push_back(start(std::string("orvel-sim run") + (n % 2 == 0 ? "" : " --isolate") +
                            " -- sh -c 'orvel-sim set name Room" + number +
                            "; orvel-sim get name; orvelctl get name; exit " + number + "'"));
  }
  for (int n = 0; n < 8; ++n) {
    Process& process = *running[static_cast<std::size_t>(n)];
    const std::string name = "Room" + std::to_string(n) + "\n";
    EXPECT_EQ(process.wait(), n) << process.error();
    EXPECT_EQ(process.output(), name + name);
  }
  EXPECT_EQ(filesLeft(), kNone);
  EXPECT_EQ(processesLeft(), kNone);
}

TEST_F(Hermetic, TheStatusIsTheCommandsHoweverItEnds) {
  for (const std::string run : {"orvel-sim run -- ", "orvel-sim run --isolate -- "}) {
    expectRows({{run + "sh -c 'exit 0'", ""},
                {run + "sh -c 'exit 77'", "", 77},
                {run + "sh -c 'kill -9 $$'", "", 128 + SIGKILL},
                {run + "no-such-program", "", 127},
                {run + "/", "", 126}});
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      const auto running = start(run + R"(sh -c 'trap "exit 5" INT TERM HUP; echo ready; sleep 1000 & wait')");
      running->waitForOutput("ready");
      running->signal(signal);
      EXPECT_EQ(running->wait(), 5) << signal;
    }
    EXPECT_EQ(filesLeft(), kNone);
  }
}

TEST_F(Hermetic, WhatTheCommandLeftRunningEndsWithIt) {
  const char* const scripts[] = {
      "sleep 1000 & echo $!",
      // A daemon of a daemon, which says so when it is told to end.
      R"(sh -c 'setsid sh -c "trap \"echo >$TMPDIR/told; exit\" TERM; echo \$\$; sleep 1000 & wait" &' | head -1)",
  };
  for (const char* script : scripts) {
    std::ofstream(file("script")) << script;
    const Result result = run("orvel-sim run -- sh $T/script");
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_NE(kill(std::stoi(result.output), 0), 0) << script;
    EXPECT_EQ(processesLeft(), kNone);
  }
  EXPECT_TRUE(fs::exists(temporary() / "told"));
}

TEST_F(Hermetic, AKilledRunTakesItsCommandAlongAndTheNextOneCleansUp) {
  for (const std::string mode : {"", "--isolate "}) {
    const auto killed = start("orvel-sim run " + mode + "-- sh -c 'echo $$; exec sleep 1000'");
    const pid_t pid = std::stoi(killed->waitForOutput(""));
    const auto living = start("orvel-sim run -- sh -c 'echo ready; read line; [ -d $ORVEL_RUNTIME_DIR ]'");
    living->waitForOutput("ready");
    killed->signal(SIGKILL);
    test::waitForEndOf(pid);
    EXPECT_EQ(filesLeft().size(), 2U);
    expectRows({{"orvel-sim run -- true"}});
    EXPECT_EQ(filesLeft().size(), 1U) << "that of the one that lives";
    living->write("");
    EXPECT_EQ(living->wait(), 0) << "it must not be taken for abandoned";
    EXPECT_EQ(filesLeft(), kNone);
  }
}

class Scenarios : public NoDevice {
 protected:
  // What a script prints that runs inside such a device.
  std::string inside(const std::string& scenario, const std::string& script) const {
    std::ofstream(file("script")) << script;
    return outputOf("orvel-sim run --scenario " + scenario + " -- sh $T/script");
  }
};

TEST_F(Scenarios, EachShowsWhatIsSpecialAboutIt) {
  constexpr const char* kRows[][3] = {
      {"asleep", "orvelctl screen", "off\n"},
      {"busy", "orvelctl pm list packages | wc -l; orvel-sim process | wc -l", "440\n265\n"},
      {"dead", "orvel-sim services | grep -c dead", "3\n"},
      {"dropping", "orvel-sim drop | tail -1", "packages * on  # has not struck yet\n"},
      {"extremes", "orvelctl setting greatest; orvelctl get type", "2147483647\nQDT-🖥-8\n"},
      {"flapping", "orvel-sim flap | wc -l; orvel-sim flap events", "5\nevents 40000 20\n"},
      {"fresh", "orvelctl get registered; orvelctl pm list packages | wc -l", "no\n8\n"},
      {"hanging", "ORVEL_CALL_TIMEOUT_MS=200 orvelctl screen; echo $?", "4\n"},
      {"hostile", "orvelctl get country; echo $?; orvelctl event N n", "1\nUNKNOWN_ERROR, may be tried again\n"},
      {"offline", "orvelctl event N n", "MARO_DISCONNECTED, may be tried again\n"},
      {"old", "orvelctl wake-lock partial; echo $?; orvelctl wake-lock full; echo $?", "1\nacquired\n0\n"},
      {"refusing", "orvelctl event N n; echo $?; orvelctl wake-lock full; echo $?", "1\n1\n"},
      {"registered", "orvelctl get customer-id; orvelctl get country", "quarlo.account.9WX3L1\nGB\n"},
      {"slow", "orvel-sim delay power", "power * 150  # has not struck yet\n"},
  };
  Words tried;
  for (const auto& [name, script, shown] : kRows) {
    tried.emplace_back(name);
    EXPECT_EQ(inside(name, script), shown) << name;
  }
  EXPECT_EQ(linesOf(outputOf("orvel-sim scenarios | cut -d' ' -f1")), tried);
}

TEST_F(Scenarios, WhatAScriptDoesToOneAndAPrintedOneAreScenariosToo) {
  EXPECT_EQ(inside("busy",
                   "orvel-sim scenarios busy >$T/a.json; orvel-sim set name Again; orvel-sim kill metrics;"
                   "orvel-sim state >$T/b.json; orvel-sim run --scenario $T/a.json -- orvelctl get name;"
                   "orvel-sim run --scenario $T/b.json -- sh -c 'orvel-sim get name; orvel-sim kill | grep -c dead'"),
            "Show Room\nAgain\n1\n");
  expectRows({{"orvel-sim scenarios", "...\nbusy        much of everything"}});
}

}  // namespace
}  // namespace orvel::e2e
