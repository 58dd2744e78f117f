// What a person gets in bash for a line that ends at the cursor, and the manual pages.
#include <signal.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

// Sources the file that is installed, and gives what its function leaves for the shell, one candidate a line.
constexpr char kAsk[] = R"(
  source "$1"
  [[ $(complete -p orvelctl orvel-sim | grep -c _orvel_complete) == 2 ]] || exit 9
  COMP_WORDBREAKS=$' \t\n"\'><=;|&(:' COMP_LINE=$2 COMP_POINT=${#2}
  _orvel_complete "$3" 2>/dev/null
  ((${#COMPREPLY[@]} == 0)) || printf '%s\n' "${COMPREPLY[@]}"
)";

class Completion : public NoDevice {
 protected:
  // Programs may be slow under a sanitizer, on a busy machine.
  std::string complete(const std::string& line) const {
    Words environment = NoDevice::environment();
    environment.emplace_back("ORVEL_COMPLETION_MS=15000");
    const std::string program = line.substr(0, line.find(' '));
    const Result result = test::run({"/bin/bash", "-c", kAsk, "bash", ORVEL_COMPLETION, line, program}, environment);
    EXPECT_EQ(result.status, 0) << line << ": " << result.error;
    return result.output;
  }
};

TEST_F(Completion, WhatTheDeviceHoldsAtTheMomentCompletesBothPrograms) {
  // What needs no device is there without one.
  EXPECT_EQ(complete("orvel-sim exception pow"), "power\n");
  EXPECT_EQ(complete("orvel-sim set connectivity net"), "networkConnected\n");

  const auto device = serve();
  order("set setting 'two words' 1", "set setting colon:ed 1");
  const auto holder = start("orvelctl directive Speaker:1", "watching");
  const std::pair<const char*, const char*> rows[] = {
      {"orvelctl --log-level=wa", "warning\n"},
      {"orvelctl setting loc", "location_mode\n"},
      {"orvelctl setting 'two w", "two words\n"},
      {"orvelctl watch screen setting:",
       "device_provisioned\nlocation_mode\nscreen_brightness\nvolume_alarm\n"
       "two\\ words\ncolon:ed\n"},
      {"orvelctl directive Sp", "Speaker:1\n"},
      {"orvelctl am start --package=com.quarlo.mus", "com.quarlo.music\n"},
      {"orvelctl pm has-feature android.hardware.wi", "android.hardware.wifi\n"},
      {"orvel-sim package remove com.quarlo.mus", "com.quarlo.music\n"},
      {"orvel-sim process foreground com.quarlo.mus", "com.quarlo.music\n"},
      {"orvel-sim hang delegate getDeviceN", "getDeviceName\n"},
      {"orvel-sim kill coor", "coordinator\n"},
      {"orvel-sim set power screenOn ", "true\nfalse\n"},
      {"orvel-sim set delegate setting vol", "volume_alarm\n"},
      {"orvel-sim unset setting two", "two\\ words\n"},
      {"orvel-sim set packages package com.quarlo.music version", "versionCode\nversionName\n"},
      {"orvel-sim directive Sp", "Speaker:1\n"},
      {"orvel-sim set no such thing ", ""},
      {"orvel-sim run -- orvelctl de", ""},
  };
  for (const auto& [line, replies] : rows) EXPECT_EQ(complete(line), replies) << line;
}

TEST_F(Completion, ADeviceThatDoesNotAnswerCostsOnlyItsOwnWords) {
  const auto device = serve();
  device->signal(SIGSTOP);
  // Ended by their own limit: by nothing else it could be.
  expectRows({{"orvelctl --complete 'orvelctl setting loc' ''", "", 128 + SIGALRM},
              {"ORVEL_COMPLETION_MS=1500 orvel-sim --complete 'orvel-sim set delegate mar' ''",
               "marketplace\nmaroConnected\n", 128 + SIGALRM}});
  device->signal(SIGCONT);
}

}  // namespace
}  // namespace orvel::e2e
