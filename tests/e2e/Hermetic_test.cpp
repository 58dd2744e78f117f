// `orvel-sim run -- COMMAND`: a device that nobody else sees, of which nothing is left.
#include <dirent.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "Device.h"

namespace orvel::e2e {
namespace {

namespace fs = std::filesystem;

class Hermetic : public NoDevice {
 protected:
  Words command(const std::string& script) const { return {"orvel-sim", "run", "--", "/bin/sh", "-c", script}; }

  // Whatever runs with this test's directory for temporary files is one of its programs, or was left by one.
  std::vector<std::string> processesLeft() const {
    std::vector<std::string> left;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
      std::ifstream environment(entry.path() / "environ");
      const std::string text((std::istreambuf_iterator<char>(environment)), {});
      if (text.find("TMPDIR=" + temporary().string() + '\0') == std::string::npos) continue;
      std::ifstream command(entry.path() / "comm");
      std::string name;
      std::getline(command, name);
      left.push_back(entry.path().filename().string() + " " + name);
    }
    return left;
  }

  std::vector<std::string> filesLeft() const {
    std::vector<std::string> left;
    for (const fs::directory_entry& entry : fs::directory_iterator(temporary()))
      left.push_back(entry.path().filename());
    return left;
  }
};

// The long form: ORVEL_HERMETIC_ROUNDS=50.
TEST_F(Hermetic, EightAtOnceSeeEachItsOwnAndLeaveNothing) {
  const char* given = std::getenv("ORVEL_HERMETIC_ROUNDS");
  const int rounds = given == nullptr ? 3 : std::atoi(given);
  constexpr int kAtOnce = 8;
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::unique_ptr<Process>> running;
    for (int n = 0; n < kAtOnce; ++n) {
      const std::string script = "PATH=" ORVEL_BIN ":$PATH; orvel-sim set name Room" + std::to_string(n) +
                                 "; orvel-sim get name; orvelctl get name; exit " + std::to_string(n);
      running.push_back(start(Words{"orvel-sim", "run", "--scenario", n % 2 == 0 ? "busy" : "fresh"} +
                              (n % 4 < 2 ? Words{} : Words{"--isolate"}) + Words{"--", "/bin/sh", "-c", script}));
    }
    for (int n = 0; n < kAtOnce; ++n) {
      Process& process = *running[static_cast<std::size_t>(n)];
      const std::string name = "Room" + std::to_string(n) + "\n";
      EXPECT_EQ(process.wait(), n) << process.error();
      EXPECT_EQ(process.output(), name + name);
    }
    ASSERT_EQ(filesLeft(), std::vector<std::string>());
    ASSERT_EQ(processesLeft(), std::vector<std::string>());
  }
}

TEST_F(Hermetic, TheCallersDeviceIsNotTheCommands) {
  const auto callers = start({"orvel-sim", "run"});
  callers->waitForOutput("serving in ");
  const Result result =
      run(command("PATH=" ORVEL_BIN ":$PATH; orvel-sim set name Inside; orvelctl get name; echo $ORVEL_RUNTIME_DIR"));
  EXPECT_EQ(result.output.rfind("Inside\n" + temporary().string() + "/orvel-sim-", 0), 0U) << result.output;
  EXPECT_EQ(run({"orvelctl", "get", "name"}).output, "Kitchen Display\n");
}

TEST_F(Hermetic, TheStatusIsTheCommandsHoweverItEnds) {
  const struct {
    Words words;
    int status;
  } rows[] = {
      {command("exit 0"), 0},
      {command("exit 77"), 77},
      {command("kill -9 $$"), 128 + SIGKILL},
      {command("kill -TERM $$"), 128 + SIGTERM},
      {{"orvel-sim", "run", "--", "no-such-program"}, 127},
      {{"orvel-sim", "run", "--", "/"}, 126},
      {{"orvel-sim", "run", "--isolate", "--", "no-such-program"}, 127},
  };
  for (const auto& row : rows) {
    const Result result = run(row.words);
    EXPECT_EQ(result.status, row.status) << result.error;
    EXPECT_EQ(filesLeft(), std::vector<std::string>());
  }
}

TEST_F(Hermetic, WhatTheCommandLeftRunningEndsWithIt) {
  const char* const scripts[] = {
      "sleep 1000 & echo $!",
      "(setsid sleep 1000 & echo $!); exit 0",
      // A daemon of a daemon, which says so when it is told to end.
      R"(sh -c 'setsid sh -c "trap \"echo >$TMPDIR/told; exit\" TERM; echo \$\$; sleep 1000 & wait" &' | head -1)",
  };
  for (const char* script : scripts) {
    const Result result = run(command(script));
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_NE(kill(std::stoi(result.output), 0), 0) << script;
    EXPECT_EQ(processesLeft(), std::vector<std::string>());
  }
  EXPECT_EQ(filesLeft(), std::vector<std::string>{"told"});
}

TEST_F(Hermetic, ASignalGoesToTheCommandAndEverythingEnds) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const auto running = start(command("trap 'exit 5' INT TERM HUP; echo ready; sleep 1000 & wait"));
    running->waitForOutput("ready");
    running->signal(signal);
    EXPECT_EQ(running->wait(), 5) << signal;
    EXPECT_EQ(filesLeft(), std::vector<std::string>());
  }
}

TEST_F(Hermetic, AKilledRunTakesItsCommandAlongAndTheNextOneCleansUp) {
  for (const Words& mode : {Words{}, Words{"--isolate"}}) {
    const auto killed =
        start(Words{"orvel-sim", "run"} + mode + Words{"--", "/bin/sh", "-c", "echo $$; exec sleep 1000"});
    const pid_t pid = std::stoi(killed->waitForOutput(""));
    const auto living = start(command("echo ready; read line; [ -d $ORVEL_RUNTIME_DIR ]"));
    living->waitForOutput("ready");
    killed->signal(SIGKILL);
    test::waitForEndOf(pid);
    EXPECT_EQ(filesLeft().size(), 2U);
    EXPECT_EQ(run(command("exit 0")).status, 0);
    EXPECT_EQ(filesLeft().size(), 1U) << "that of the one that lives";
    living->write("");
    EXPECT_EQ(living->wait(), 0) << "it must not be taken for abandoned";
    EXPECT_EQ(filesLeft(), std::vector<std::string>());
  }
}

}  // namespace
}  // namespace orvel::e2e
