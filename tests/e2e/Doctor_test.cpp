// orvelctl doctor: each broken set-up is named, and following the advice mends it.
#include <unistd.h>

#include <regex>

#include "Device.h"

namespace orvel::e2e {
namespace {

// A script that may change the environment too, and what the doctor finds behind it.
struct Finding {
  std::string set_up;
  int status;
  const char* lines;  // a part of the output, as a regular expression
  int mended = -1;    // the status once the first advice was followed; -1: not tried
};

class Doctor : public NoDevice {
 protected:
  void expectFinding(const Finding& row) const {
    SCOPED_TRACE(row.set_up);
    const Result found = run(row.set_up + "; exec orvelctl doctor");
    EXPECT_EQ(found.status, row.status);
    EXPECT_EQ(found.error, "");
    EXPECT_TRUE(std::regex_search(found.output, std::regex(row.lines))) << row.lines << "\n" << found.output;
    EXPECT_EQ(has(found.output, "\nok    delegate  ") || has(found.output, "\nFAIL  delegate  "), row.status != 3)
        << "without a device there is no service to ask";
    if (row.mended < 0) return;
    const std::size_t advice = found.output.find("try: ") + 5;
    const Result mended =
        run("{ " + row.set_up + "; } 2>/dev/null; " +
            found.output.substr(advice, found.output.find('\n', advice) - advice) + "; exec orvelctl doctor");
    EXPECT_EQ(mended.status, row.mended) << mended.output;
    const std::string check = std::string(row.lines).substr(0, 18).replace(0, 4, "ok  ");
    EXPECT_TRUE(has(mended.output, check)) << mended.output;
  }
};

TEST_F(Doctor, EachDirectoryThatIsNoneOfADeviceIsToldFromTheOthers) {
  const Finding rows[] = {
      {":", 3, "FAIL  directory     /.*/device, from ORVEL_RUNTIME_DIR: it does not exist\n      try: orvel-sim run\n"},
      {"export ORVEL_RUNTIME_DIR=$T/a/b", 3, "FAIL  directory .*: it does not exist, nor does .*/a\n.*try: mkdir -p "},
      {": >$ORVEL_RUNTIME_DIR", 3, "FAIL  directory .* directory.*\n.*try: export ORVEL_RUNTIME_DIR=/tmp/orvel-"},
      {"mkdir -m 700 $T/real; ln -s $T/real $ORVEL_RUNTIME_DIR", 3, "FAIL  directory     .*symbolic link", 3},
      {"mkdir -m 750 $ORVEL_RUNTIME_DIR", 3, "FAIL  directory     .*its mode is 0750.*\n.*try: chmod 700 ", 3},
      {"export ORVEL_RUNTIME_DIR=\"$T/it's\"; mkdir -m 755 \"$T/it's\"", 3, "FAIL  directory     .*its mode is 0755",
       3},
      {"export ORVEL_RUNTIME_DIR=$T/$(printf %300d 1)", 3, "FAIL  directory .*its path is too long.*\n.*try: export "},
      {"mkdir -m 700 $ORVEL_RUNTIME_DIR", 3, "FAIL  device .*nothing serves there.*\n.*try: orvel-sim run"},
      {"export XDG_RUNTIME_DIR=$T/x; unset ORVEL_RUNTIME_DIR", 3,
       "/x/orvel, from XDG_RUNTIME_DIR: it does.*\n.*mkdir -p "},
      {"unset ORVEL_RUNTIME_DIR XDG_RUNTIME_DIR", 3, "  directory     /tmp/orvel-[0-9]+, because neither "},
      {"mkdir -m 700 $ORVEL_RUNTIME_DIR; chown 65534 $ORVEL_RUNTIME_DIR", 3,
       "it belongs to nobody.*\n.*try: sudo -u 'nobody' ORVEL_RUNTIME_DIR="},
  };
  for (const Finding& row : rows) {
    if (has(row.set_up, "chown") && geteuid() != 0) continue;  // no other user can give a directory away
    std::filesystem::remove_all(directory());
    expectFinding(row);
  }
  std::filesystem::create_directory(temporary() / "x");
  const auto elsewhere = start("env ORVEL_RUNTIME_DIR=$T/x/orvel orvel-sim run");
  elsewhere->waitForOutput("serving in ");
  const std::string advice = "try: export ORVEL_RUNTIME_DIR=" + file("x/orvel");
  expectFinding({"export XDG_RUNTIME_DIR=$T/x", 3, advice.c_str()});
}

TEST_F(Doctor, EachServiceThatDoesNotAnswerIsNamedAndTheAdviceMendsIt) {
  const auto device = serve("--isolate");
  const json found = parseLines(outputOf("orvelctl --json doctor")).at(0);
  for (const json& check : found.at("checks")) EXPECT_EQ(check.at("state"), "ok") << check;
  const Finding rows[] = {
      {"orvel-sim kill power", 5, "FAIL  power         .*is dead", 0},
      {"orvel-sim kill metrics", 5, "FAIL  metrics       .*is dead", 0},
      {"kill -STOP $(orvel-sim services | sed -n 's/^events .*process //p')", 4, "FAIL  events        .*is stopped", 0},
      {"orvel-sim hang packages", 4, "FAIL  packages      .*hangs", 0},
      {"orvel-sim hang connectivity", 4, "FAIL  connectivity  .*hangs", 0},
      // What is only odd is a warning.
      {"orvel-sim delay power isInteractive 300", 0, "warn  power "},
      {"export ORVEL_CALL_TIMEOUT_MS=soon", 0, "warn  call limit "},
      {"cd $T; export ORVEL_RUNTIME_DIR=device", 0, "warn  directory "},
      {"orvel-sim exception activity", 1, "FAIL  activity .*answers with an error"},
      {"orvel-sim exception activity; orvel-sim hang power", 4, "FAIL  activity .*answers with an error"},
  };
  for (const Finding& row : rows) expectFinding(row);
}

}  // namespace
}  // namespace orvel::e2e
