// orvelctl doctor: each broken set-up is named, and following the advice mends it.
#include <unistd.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Doctor : public NoDevice {
 protected:
  // Examines what `set_up` leaves, a script that may change the environment too.
  struct Findings {
    int status;
    json checks;  // by their names
  };
  Findings examine(const std::string& set_up = ":") const {
    const Result result = run(set_up + "; exec orvelctl --json doctor");
    EXPECT_EQ(result.error, "");
    json checks = json::object();
    const json found = parseLines(result.output).at(0);
    for (const json& check : found.at("checks")) checks[check.at("name")] = check;
    return {result.status, checks};
  }
};

TEST_F(Doctor, EachDirectoryThatIsNoneOfADeviceIsToldFromTheOthers) {
  const struct {
    const char* set_up;
    const char* check;
    const char* message;
    const char* advice;
    bool as_root = false;
  } rows[] = {
      {":", "directory", "it does not exist", "orvel-sim run"},
      {"export ORVEL_RUNTIME_DIR=$T/a/b", "directory", "it does not exist", "mkdir -p "},
      {": >$ORVEL_RUNTIME_DIR", "directory", " directory", "export ORVEL_RUNTIME_DIR=/tmp/orvel-"},
      {": >$T/f; export ORVEL_RUNTIME_DIR=$T/f/d", "directory", " directory", "export ORVEL_RUNTIME_DIR="},
      {"mkdir -m 700 $T/real; ln -s $T/real $ORVEL_RUNTIME_DIR", "directory", "symbolic link",
       "export ORVEL_RUNTIME_DIR=\"$(readlink -f "},
      {"mkdir -m 750 $ORVEL_RUNTIME_DIR", "directory", "its mode is 0750", "chmod 700 "},
      {"mkdir -m 700 $ORVEL_RUNTIME_DIR; chown 65534 $ORVEL_RUNTIME_DIR", "directory", "it belongs to nobody",
       "sudo -u 'nobody' ORVEL_RUNTIME_DIR=", true},
      {"export ORVEL_RUNTIME_DIR=$T/$(printf %300d 1)", "directory", "its path is too long", "export "},
      {"mkdir -m 700 $ORVEL_RUNTIME_DIR", "device", "nothing serves there", "orvel-sim run"},
      {"export XDG_RUNTIME_DIR=$T/x; unset ORVEL_RUNTIME_DIR", "directory", "/x/orvel, from XDG_RUNTIME_DIR: it does",
       "mkdir -p "},
  };
  for (const auto& row : rows) {
    if (row.as_root && geteuid() != 0) continue;  // no other user can give a directory away
    SCOPED_TRACE(row.set_up);
    std::filesystem::remove_all(directory());
    Findings found = examine(row.set_up);
    EXPECT_EQ(found.status, 3);
    const json check = found.checks[row.check];
    EXPECT_EQ(check.at("state"), "failure");
    EXPECT_TRUE(has(check.at("message"), row.message)) << check;
    EXPECT_EQ(check.at("advice").get<std::string>().find(row.advice), 0U) << check;
    EXPECT_FALSE(found.checks.contains("delegate")) << "without a device there is no service to ask";
  }
}

TEST_F(Doctor, TheAdviceMendsTheDirectory) {
  for (const char* set_up :
       {"mkdir -m 755 \"$ORVEL_RUNTIME_DIR\"", "export ORVEL_RUNTIME_DIR=\"$T/it's\"; mkdir \"$T/it's\"",
        "mkdir -m 700 $T/real; export ORVEL_RUNTIME_DIR=$T/link; ln -s $T/real $T/link"}) {
    const json broken = examine(set_up).checks["directory"];
    const std::string again = "{ " + std::string(set_up) + "; } 2>/dev/null; ";
    const std::string mended = again + broken.at("advice").get<std::string>();
    EXPECT_EQ(examine(mended).checks["directory"].at("state"), "ok") << mended;
  }
}

TEST_F(Doctor, ADeviceThatLivesElsewhereIsFound) {
  std::filesystem::create_directory(temporary() / "x");
  const auto device = start("env ORVEL_RUNTIME_DIR=$T/x/orvel orvel-sim run");
  device->waitForOutput("serving in ");
  json found = examine("export XDG_RUNTIME_DIR=$T/x").checks["elsewhere"];
  EXPECT_EQ(found.at("advice"), "export ORVEL_RUNTIME_DIR=" + file("x/orvel"));
}

TEST_F(Doctor, EachServiceThatDoesNotAnswerIsNamedAndTheAdviceMendsIt) {
  const auto device = serve("--isolate");
  Findings well = examine();
  EXPECT_EQ(well.status, 0);
  for (const char* asked : {"delegate", "power", "connectivity", "activity", "packages"}) {
    EXPECT_GT(well.checks[asked].at("milliseconds"), 0) << asked;
  }
  const struct {
    const char* set_up;
    int status;
    const char* check;
    const char* message;
    bool is_mended;
  } rows[] = {
      {"orvel-sim kill power", 5, "power", "is dead", true},
      {"orvel-sim kill metrics", 5, "metrics", "is dead", true},
      {"kill -STOP $(orvel-sim services | sed -n 's/^events .*process //p')", 4, "events", "is stopped", true},
      {"orvel-sim hang packages", 4, "packages", "hangs", true},
      {"orvel-sim hang connectivity", 4, "connectivity", "hangs", true},
      {"orvel-sim exception activity", 1, "activity", "answers with an error", false},
      {"orvel-sim exception activity; orvel-sim hang power", 4, "activity", "answers with an error", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.set_up);
    Findings found = examine(row.set_up);
    EXPECT_EQ(found.status, row.status);
    const json check = found.checks[row.check];
    EXPECT_EQ(check.at("state"), "failure");
    EXPECT_TRUE(has(check.at("message"), row.message)) << check;
    const int after = row.is_mended ? examine(check.at("advice").get<std::string>()).status : 0;
    EXPECT_EQ(after, 0) << check;
  }
}

TEST_F(Doctor, WhatIsOnlyOddIsAWarning) {
  const auto device = serve();
  const struct {
    const char* set_up;
    const char* check;
    const char* state;
  } rows[] = {
      {"export ORVEL_CALL_TIMEOUT_MS=soon", "call limit", "warning"},
      {"export ORVEL_CALL_TIMEOUT_MS=86400001", "call limit", "warning"},
      {"cd $T; export ORVEL_RUNTIME_DIR=device", "directory", "warning"},
      {"orvel-sim delay power isInteractive 300", "power", "warning"},
  };
  for (const auto& row : rows) {
    Findings found = examine(row.set_up);
    EXPECT_EQ(found.status, 0) << row.set_up;
    EXPECT_EQ(found.checks[row.check].value("state", ""), row.state) << row.set_up;
  }
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
