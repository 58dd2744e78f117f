// orvelctl doctor: each broken set-up is named, and following the advice mends it.
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "Device.h"

namespace orvel::e2e {
namespace {

using nlohmann::json;

class Doctor : public NoDevice {
 protected:
  // Finds the programs by their names, as the advice calls them; T is the temporary directory.
  Words environment() const {
    return NoDevice::environment() +
           Words{std::string("PATH=") + ORVEL_BIN ":/usr/bin:/bin", "T=" + temporary().string()};
  }
  Result shell(const std::string& script) const { return test::run({"/bin/sh", "-c", script}, environment()); }

  // Examines what `set_up` leaves, a script that may change the environment too.
  struct Findings {
    int status;
    json checks;

    // The one of that name; null where there is none.
    json operator[](const std::string& name) const {
      const auto found =
          std::find_if(checks.begin(), checks.end(), [&](const json& check) { return check.at("name") == name; });
      return found == checks.end() ? json() : *found;
    }
  };
  Findings examine(const std::string& set_up = ":") const {
    const Result result = shell(set_up + "; exec orvelctl --json doctor");
    EXPECT_EQ(result.error, "");
    return {result.status, parseLines(result.output).front().at("checks")};
  }

  std::unique_ptr<Process> serve(const Words& options = {}) const {
    auto device = std::make_unique<Process>(Words{"orvel-sim", "run"} + options, environment());
    device->waitForOutput("serving in ");
    return device;
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
      {": >$ORVEL_RUNTIME_DIR", "directory", "it is no directory", "export ORVEL_RUNTIME_DIR=/tmp/orvel-"},
      {": >$T/f; export ORVEL_RUNTIME_DIR=$T/f/d", "directory", "it is no directory", "export ORVEL_RUNTIME_DIR="},
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
    if (row.as_root && geteuid() != 0) continue;  // nobody else can give a directory away
    SCOPED_TRACE(row.set_up);
    std::filesystem::remove_all(directory());
    const Findings found = examine(row.set_up);
    EXPECT_EQ(found.status, 3);
    const json check = found[row.check];
    EXPECT_EQ(check.at("state"), "failure");
    EXPECT_NE(check.at("message").get<std::string>().find(row.message), std::string::npos) << check;
    EXPECT_EQ(check.at("advice").get<std::string>().find(row.advice), 0U) << check;
    EXPECT_EQ(found["delegate"], json()) << "without a device there is nobody to ask";
  }
}

TEST_F(Doctor, TheAdviceMendsTheDirectory) {
  for (const char* set_up :
       {"mkdir -m 755 \"$ORVEL_RUNTIME_DIR\"", "export ORVEL_RUNTIME_DIR=\"$T/it's\"; mkdir \"$T/it's\"",
        "mkdir -m 700 $T/real; export ORVEL_RUNTIME_DIR=$T/link; ln -s $T/real $T/link"}) {
    const json broken = examine(set_up)["directory"];
    const std::string again = "{ " + std::string(set_up) + "; } 2>/dev/null; ";
    const std::string mended = again + broken.at("advice").get<std::string>();
    EXPECT_EQ(examine(mended)["directory"].at("state"), "ok") << mended;
  }
}

TEST_F(Doctor, ADeviceThatLivesElsewhereIsFound) {
  std::filesystem::create_directory(temporary() / "x");
  Process device({"orvel-sim", "run"}, {"ORVEL_RUNTIME_DIR=" + (temporary() / "x/orvel").string()});
  device.waitForOutput("serving in ");
  const json found = examine("export XDG_RUNTIME_DIR=$T/x")["elsewhere"];
  EXPECT_EQ(found.at("advice"), "export ORVEL_RUNTIME_DIR=" + (temporary() / "x/orvel").string());
}

TEST_F(Doctor, EachServiceThatDoesNotAnswerIsNamedAndTheAdviceMendsIt) {
  const auto device = serve({"--isolate"});
  const Findings well = examine();
  EXPECT_EQ(well.status, 0);
  for (const char* asked : {"delegate", "power", "connectivity", "activity", "packages"}) {
    EXPECT_GT(well[asked].at("milliseconds"), 0) << asked;
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
    const Findings found = examine(row.set_up);
    EXPECT_EQ(found.status, row.status);
    const json check = found[row.check];
    EXPECT_EQ(check.at("state"), "failure");
    EXPECT_NE(check.at("message").get<std::string>().find(row.message), std::string::npos) << check;
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
    const Findings found = examine(row.set_up);
    EXPECT_EQ(found.status, 0) << row.set_up;
    EXPECT_EQ(found[row.check].value("state", ""), row.state) << row.set_up;
  }
}

TEST_F(Doctor, PeopleReadOneLineACheckAndWhatToTryBelow) {
  const Result result = shell("orvelctl doctor");
  EXPECT_NE(result.output.find("\nFAIL  directory     " + directory().string()), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("\n      try: orvel-sim run\n"), std::string::npos) << result.output;
  EXPECT_EQ(result.output.find("ok    orvelctl      "), 0U) << result.output;
  const Result nowhere = shell("unset ORVEL_RUNTIME_DIR XDG_RUNTIME_DIR; orvelctl doctor");
  const std::string fallback = "/tmp/orvel-" + std::to_string(geteuid()) + ", because neither ";
  EXPECT_NE(nowhere.output.find(fallback), std::string::npos) << nowhere.output;
}

}  // namespace
}  // namespace orvel::e2e
