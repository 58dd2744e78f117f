// What a person gets in bash for a line that ends at the cursor, and the manual pages.
#include <signal.h>

#include <chrono>
#include <set>

#include "Device.h"

namespace orvel::e2e {
namespace {

// Programs may be slow under a sanitizer, on a busy machine. For one test.
class MoreTime {
 public:
  explicit MoreTime(const char* milliseconds) { setenv("ORVEL_COMPLETION_MS", milliseconds, 1); }
  ~MoreTime() { unsetenv("ORVEL_COMPLETION_MS"); }
  MoreTime(const MoreTime&) = delete;
  MoreTime& operator=(const MoreTime&) = delete;
};

// Sources the file that is installed, and gives what its function leaves for the shell, one candidate a line.
constexpr char kAsk[] = R"(
  source "$1"
  [[ $(complete -p orvelctl orvel-sim | grep -c _orvel_complete) == 2 ]] || exit 9
  COMP_WORDBREAKS=$' \t\n"\'><=;|&(:' COMP_LINE=$2 COMP_POINT=${#2}
  _orvel_complete "$3" 2>/dev/null
  ((${#COMPREPLY[@]} == 0)) || printf '%s\n' "${COMPREPLY[@]}"
)";

class Completion : public Device {
 protected:
  std::string complete(const std::string& line) const {
    const std::string program = line.substr(0, line.find(' '));
    const Result result = run({"/bin/bash", "-c", kAsk, "bash", ORVEL_COMPLETION, line, ORVEL_BIN "/" + program});
    EXPECT_EQ(result.status, 0) << line << ": " << result.error;
    return result.output;
  }
};

TEST_P(Completion, WhatTheDeviceHoldsAtTheMomentCompletesBothPrograms) {
  const MoreTime moreTime("20000");
  order({"set", "setting", "two words", "1"});
  order({"set", "setting", "colon:ed", "1"});
  const auto holder = start({"orvelctl", "directive", "Speaker:1"});
  holder->waitForError("watching");
  const struct {
    const char* line;
    const char* replies;
  } rows[] = {
      {"orvelctl get cus", "customer-id\n"},
      {"orvelctl --log-level=wa", "warning\n"},
      {"orvelctl setting loc", "location_mode\n"},
      {"orvelctl settings get secure two", "two\\ words\n"},
      {"orvelctl setting 'two w", "two words\n"},
      {"orvelctl setting colon:e", "ed\n"},
      {"orvelctl watch scr", "screen\n"},
      {"orvelctl watch set", "setting:\n"},
      {"orvelctl watch screen setting:loc", "location_mode\n"},
      {"orvelctl watch screen setting:",
       "device_provisioned\nlocation_mode\nscreen_brightness\nvolume_alarm\n"
       "two\\ words\ncolon:ed\n"},
      {"orvelctl directive Sp", "Speaker:1\n"},
      {"orvelctl am launch com.quarlo.mus", "com.quarlo.music\n"},
      {"orvelctl am start --package=com.quarlo.mus", "com.quarlo.music\n"},
      {"orvelctl pm has-feature android.hardware.wi", "android.hardware.wifi\n"},
      {"orvel-sim package remove com.quarlo.mus", "com.quarlo.music\n"},
      {"orvel-sim process foreground com.quarlo.mus", "com.quarlo.music\n"},
      {"orvel-sim hang del", "delegate\n"},
      {"orvel-sim hang delegate getDeviceN", "getDeviceName\n"},
      {"orvel-sim delay --js", "--json\n"},
      {"orvel-sim kill coor", "coordinator\n"},
      {"orvel-sim set screenO", "screenOn\n"},
      {"orvel-sim set power screenOn ", "true\nfalse\n"},
      {"orvel-sim set delegate setting vol", "volume_alarm\n"},
      {"orvel-sim set package com.quarlo.mus", "com.quarlo.music\n"},
      {"orvel-sim unset setting two", "two\\ words\n"},
      {"orvel-sim set packages package com.quarlo.music version", "versionCode\nversionName\n"},
      {"orvel-sim directive Sp", "Speaker:1\n"},
      {"orvel-sim set name ", ""},
      {"orvel-sim set no such thing ", ""},
      {"orvel-sim hang nobody ", ""},
      {"orvel-sim run -- orvelctl de", ""},
  };
  for (const auto& row : rows) {
    std::string replies = complete(row.line);
    EXPECT_EQ(replies, row.replies) << row.line;
  }
}

TEST_P(Completion, ADeviceThatDoesNotAnswerCostsOnlyItsOwnWords) {
  m_device->signal(SIGSTOP);
  const auto began = std::chrono::steady_clock::now();
  // Ended by its own limit: by nothing else it could be.
  EXPECT_EQ(run({"orvelctl", "--complete", "orvelctl setting loc", ""}).status, 128 + SIGALRM);
  const MoreTime moreTime("3000");  // on any machine enough for what comes before the wait
  const Result fields = run({"orvel-sim", "--complete", "orvel-sim set delegate mar", ""});
  EXPECT_EQ(fields.output, "marketplace\nmaroConnected\n");
  EXPECT_EQ(fields.status, 128 + SIGALRM);
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
  m_device->signal(SIGCONT);
}

INSTANTIATE_TEST_SUITE_P(Processes, Completion, ::testing::Values(false));

using Alone = NoDevice;

TEST_F(Alone, WithoutADeviceThereIsStillWhatNeedsNone) {
  const MoreTime moreTime("20000");
  const auto complete = [&](const char* line) { return run({"orvel-sim", "--complete", line, ""}).output; };
  EXPECT_EQ(complete("orvel-sim exception pow"), "power\n");
  EXPECT_EQ(complete("orvel-sim set connectivity net"), "networkConnected\n");
  EXPECT_EQ(complete("orvel-sim set setting "), "");
  EXPECT_EQ(complete("orvel-sim serve-a"), "");
}

TEST_F(Alone, EachSubcommandAndOptionOfTheHelpIsInTheManualPage) {
  for (const char* program : {"orvelctl", "orvel-sim"}) {
    std::string page = run({program, "--man-page"}).output;
    for (std::size_t at = 0; (at = page.find('\\', at)) != std::string::npos;) page.erase(at, 1);
    // Without the escapes "\fB--json\fR" is "fB--jsonfR".
    std::istringstream help(run({program, "--help-all"}).output);
    std::set<std::string> words;
    bool in_subcommands = false;
    for (std::string line; std::getline(help, line);) {
      if (line == "Examples:" || line.rfind("--", 0) == 0) in_subcommands = false;  // the end of the help
      if (line == "Subcommands:") {
        in_subcommands = true;
        continue;
      }
      const std::size_t begin = line.find_first_not_of(' ');
      if (begin == std::string::npos) continue;
      const std::string word = line.substr(begin, line.find_first_of(" ,", begin) - begin);
      if (begin == 2 && word.rfind("--", 0) == 0) words.insert("fB" + word + "fR");
      if (in_subcommands && begin == 0) words.insert(".SS " + std::string(program) + " " + word + "\n");
    }
    EXPECT_GT(words.size(), 15U) << program;
    for (const std::string& word : words) EXPECT_NE(page.find(word), std::string::npos) << program << ": " << word;
  }
}

}  // namespace
}  // namespace orvel::e2e
