// orvelctl doctor: each broken set-up is named, and following the advice mends it.
#include <unistd.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

// A script that may change the environment too, and what the doctor finds behind it.
struct Finding {
  const char* set_up;
  int status;
  const char* check;  // by its name
  const char* state;
  const char* message;      // a part of what the check says
  const char* advice = "";  // how it begins
  int mended = -1;          // the status once the advice was followed, and the check is well; -1: not tried
};

class Doctor : public NoDevice {
 protected:
  // All checks by their names.
  json examine(const std::string& set_up, int status) const {
    const Result result = run(set_up + "; exec orvelctl --json doctor");
    EXPECT_EQ(result.error, "") << set_up;
    EXPECT_EQ(result.status, status) << set_up;
    json checks = json::object();
    const json found = parseLines(result.output).at(0);
    for (const json& check : found.at("checks")) checks[check.at("name")] = check;
    return checks;
  }

  void expectFinding(const Finding& row) const {
    const std::string set_up = row.set_up;
    SCOPED_TRACE(set_up);
    json checks = examine(set_up, row.status);
    const json check = checks[row.check];
    EXPECT_EQ(check.at("state"), row.state);
    EXPECT_TRUE(has(check.at("message"), row.message)) << check;
    const std::string advice = check.value("advice", "");
    EXPECT_EQ(advice.find(row.advice), 0U) << check;
    EXPECT_EQ(checks.contains("delegate"), row.status != 3) << "without a device there is no service to ask";
    if (row.mended < 0) return;
    EXPECT_EQ(examine("{ " + set_up + "; } 2>/dev/null; " + advice, row.mended)[row.check].at("state"), "ok");
  }
};

TEST_F(Doctor, EachDirectoryThatIsNoneOfADeviceIsToldFromTheOthers) {
  const Finding rows[] = {
      {":", 3, "directory", "failure", "it does not exist", "orvel-sim run"},
      {"export ORVEL_RUNTIME_DIR=$T/a/b", 3, "directory", "failure", "it does not exist", "mkdir -p "},
      {": >$ORVEL_RUNTIME_DIR", 3, "directory", "failure", " directory", "export ORVEL_RUNTIME_DIR=/tmp/orvel-"},
      {": >$T/f; export ORVEL_RUNTIME_DIR=$T/f/d", 3, "directory", "failure", " directory",
       "export ORVEL_RUNTIME_DIR="},
      {"mkdir -m 700 $T/real; ln -s $T/real $ORVEL_RUNTIME_DIR", 3, "directory", "failure", "symbolic link",
       "export ORVEL_RUNTIME_DIR=\"$(readlink -f ", 3},
      {"mkdir -m 750 $ORVEL_RUNTIME_DIR", 3, "directory", "failure", "its mode is 0750", "chmod 700 ", 3},
      {"export ORVEL_RUNTIME_DIR=\"$T/it's\"; mkdir -m 755 \"$T/it's\"", 3, "directory", "failure", "0755", "chmod ",
       3},
      {"export ORVEL_RUNTIME_DIR=$T/$(printf %300d 1)", 3, "directory", "failure", "its path is too long", "export "},
      {"mkdir -m 700 $ORVEL_RUNTIME_DIR", 3, "device", "failure", "nothing serves there", "orvel-sim run"},
      {"export XDG_RUNTIME_DIR=$T/x; unset ORVEL_RUNTIME_DIR", 3, "directory", "failure",
       "/x/orvel, from XDG_RUNTIME_DIR: it does", "mkdir -p "},
      {"mkdir -m 700 $ORVEL_RUNTIME_DIR; chown 65534 $ORVEL_RUNTIME_DIR", 3, "directory", "failure",
       "it belongs to nobody", "sudo -u 'nobody' ORVEL_RUNTIME_DIR="},
  };
  for (const Finding& row : rows) {
    if (has(row.set_up, "chown") && geteuid() != 0) continue;  // no other user can give a directory away
    std::filesystem::remove_all(directory());
    expectFinding(row);
  }
}

TEST_F(Doctor, ADeviceThatLivesElsewhereIsFound) {
  std::filesystem::create_directory(temporary() / "x");
  const auto device = start("env ORVEL_RUNTIME_DIR=$T/x/orvel orvel-sim run");
  device->waitForOutput("serving in ");
  json found = examine("export XDG_RUNTIME_DIR=$T/x", 3)["elsewhere"];
  EXPECT_EQ(found.at("advice"), "export ORVEL_RUNTIME_DIR=" + file("x/orvel"));
}

TEST_F(Doctor, EachServiceThatDoesNotAnswerIsNamedAndTheAdviceMendsIt) {
  const auto device = serve("--isolate");
  json well = examine(":", 0);
  for (const char* asked : {"delegate", "power", "connectivity", "activity", "packages"}) {
    EXPECT_GT(well[asked].at("milliseconds"), 0) << asked;
  }
  const Finding rows[] = {
      {"orvel-sim kill power", 5, "power", "failure", "is dead", "", 0},
      {"orvel-sim kill metrics", 5, "metrics", "failure", "is dead", "", 0},
      {"kill -STOP $(orvel-sim services | sed -n 's/^events .*process //p')", 4, "events", "failure", "is stopped", "",
       0},
      {"orvel-sim hang packages", 4, "packages", "failure", "hangs", "", 0},
      {"orvel-sim hang connectivity", 4, "connectivity", "failure", "hangs", "", 0},
      // What is only odd is a warning.
      {"orvel-sim delay power isInteractive 300", 0, "power", "warning", ""},
      {"export ORVEL_CALL_TIMEOUT_MS=soon", 0, "call limit", "warning", ""},
      {"export ORVEL_CALL_TIMEOUT_MS=86400001", 0, "call limit", "warning", ""},
      {"cd $T; export ORVEL_RUNTIME_DIR=device", 0, "directory", "warning", ""},
      {"orvel-sim exception activity", 1, "activity", "failure", "answers with an error"},
      {"orvel-sim exception activity; orvel-sim hang power", 4, "activity", "failure", "answers with an error"},
  };
  for (const Finding& row : rows) expectFinding(row);
}

TEST_F(Doctor, PeopleReadOneLineACheckAndWhatToTryBelow) {
  const std::string found = "...\nFAIL  directory     " + directory().string() +
                            ", from ORVEL_RUNTIME_DIR: it does not exist\n"
                            "      try: orvel-sim run\n";
  const std::string fallback = "/tmp/orvel-" + std::to_string(geteuid()) + ", because neither ";
  expectRows({{"orvelctl doctor", found.c_str(), 3},
              {"orvelctl doctor | grep -c '^ok    orvelctl      '", "1\n"},
              {"unset ORVEL_RUNTIME_DIR XDG_RUNTIME_DIR; orvelctl doctor | grep -o '" + fallback + "'",
               (fallback + "\n").c_str()}});
}

}  // namespace
}  // namespace orvel::e2e
