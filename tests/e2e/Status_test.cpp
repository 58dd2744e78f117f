// The device that people see: what it says of itself, how it is repaired and brought back, and how one is chosen.
#include <signal.h>

#include "Device.h"

namespace orvel::e2e {
namespace {

using Status = Device;

TEST_P(Status, NamesWhoIsThereWhatTheyHoldAndWhatIsBroken) {
  const auto holder = start("orvelctl directive 'Na\x1b[31mme'", "watching");
  const auto watcher = start("orvelctl watch setting:volume", "watching");
  order("hang power", "error delegate getDeviceName EPIPE --client orvelctl --call 2", "kill metrics");
  expectRows({{"orvelctl get name", "Kitchen Display\n"},
              {"orvelctl get name", "", 5},
              {"orvelctl get name", "Kitchen Display\n"}});
  const json status = view("status").at(0);
  int registrations = 0;
  json namespaces;
  for (const json& client : status.at("clients")) {
    EXPECT_EQ(client.at("client"), "orvelctl");
    for (const json& each : client.at("registrations")) {
      if (each.at("arguments").value("key", "") == "volume") ++registrations;
    }
    if (!client.at("namespaces").empty()) namespaces = client.at("namespaces");
  }
  EXPECT_EQ(registrations, 1) << status;
  EXPECT_EQ(namespaces, json::parse(R"(["Na\u001b[31mme"])")) << status;
  EXPECT_EQ(status.at("faults").dump(),
            R"([{"fault":"error","method":"getDeviceName","only":{"call":2,"client":"orvelctl"},"service":"delegate",)"
            R"("struck":1,"value":-32},{"fault":"hang","method":"*","service":"power","struck":0,"value":true}])");
  const std::string text = outputOf("orvel-sim status");
  for (const char* part :
       {"metrics       dead      -  ", "delegate.registerForSecureSettings(key: \"volume\"",
        "the namespace Na\\x1b[31mme", "error delegate getDeviceName EPIPE --client orvelctl --call 2  # struck once\n",
        "! metrics is dead: orvel-sim restart metrics\n", "! 2 faults are in force: orvel-sim reset\n"}) {
    EXPECT_TRUE(has(text, part)) << part << " in\n" << text;
  }
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  expectRows({{"orvel-sim reset power", "ended: hang power * on  # has not struck yet\n"}});
}

TEST_P(Status, ResetAndLoadBringBackWhatWas) {
  order("set name Hall", "delay delegate getCOR 5", "flap power 600000", "kill events", "set setting volume 3");
  const std::string ended =
      "ended: delay delegate getCOR 5  # has not struck yet\nended: flap power 600000\n"
      "events is dead: orvel-sim restart events\n";
  expectRows(
      {{"orvel-sim state >$T/before"},
       {"orvel-sim reset", ended.c_str()},
       {"orvel-sim reset delegate", "no fault was in force for delegate\n"},
       {"orvel-sim get name", "Hall\n"},
       {"echo '{\"about\": \"a trial\"}' | orvel-sim load -; orvel-sim kill events"},
       {"orvel-sim reset --contents; orvel-sim get about", "...", 1, "about is not set"},
       {"orvel-sim reset --contents --json", "{\"ended\":[],\"contents\":true,\"dead\":[\"events\"]}\n"},
       {"orvel-sim get name", "Kitchen Display\n"},
       {"orvel-sim restart all; orvel-sim services | grep -c dead", "0\n", 1},
       {"orvel-sim load $T/before"},
       {"orvel-sim state | cmp - $T/before", ""},
       {"orvel-sim services | grep dead | cut -d' ' -f1", "events\n"},
       {"echo '{}' | orvel-sim load -; orvel-sim state >$T/empty; orvel-sim run -- orvel-sim state | cmp - $T/empty",
        ""},
       {"echo '{\"power\": 1}' | orvel-sim load -", "", 2, "standard input: /power: expected an object"}});
}

TEST_P(Status, OffEndsAKindForTheWholeServiceAndNothingElse) {
  order("hang delegate getCOR", "hang delegate getPFM", "delay delegate getCOR 5", "delay delegate 6 --call 2");
  expectRows({{"orvel-sim delay delegate 7", "in place of: delay delegate * 6 --call 2  # has not struck yet\n"},
              {"orvel-sim hang delegate off", ""},
              {"orvel-sim hang delegate off", "nothing was in force: hang delegate\n"},
              {"orvel-sim --json hang delegate off", "{\"ended\":[]}\n"},
              {"orvel-sim delay delegate getCOR off", "still in force: delay delegate * 7  # has not struck yet\n"},
              {"orvel-sim delay delegate off; orvel-sim get delegate faults", "{}\n"},
              {"orvel-sim hang", "no hang is in force\n"}});
}
ORVEL_BOTH_MODES(Status);

using Chosen = NoDevice;

TEST_F(Chosen, OneOfSeveralDevicesIsChosenByItsName) {
  const std::string place = "XDG_RUNTIME_DIR=$T ";
  expectRows({{"orvel-sim get name", "", 3, "; start one: orvel-sim run"}});
  const auto device = serve();
  const auto kitchen = start("env XDG_RUNTIME_DIR=" + temporary().string() + " orvel-sim --json run --name kitchen");
  kitchen->waitForOutput("\n");
  const json served = json::parse(kitchen->output());
  EXPECT_EQ(served.at("name"), "kitchen");
  EXPECT_EQ(served.at("services").size(), 8U);
  expectRows({{place + "orvel-sim -d kitchen set name K; orvel-sim get name", "Kitchen Display\n"},
              {place + "orvel-sim --device kitchen get name", "K\n"},
              {"orvel-sim -d " + served.at("serving").get<std::string>() + " get name", "K\n"},
              {place + "orvel-sim devices --json | grep -c -e '\"name\":\"kitchen\"' -e $T/device", "2\n"},
              {place + "orvel-sim -d kitchn get name", "", 3, "no device is called 'kitchn'; did you mean kitchen?"},
              {"orvel-sim status -d kitchen", "", 2, "orvel-sim: -d stands before status"},
              {"orvel-sim run --timeout 3 -- true", "", 2, "--timeout stands before run"},
              {"orvel-sim run --non -- ls -l", "", 2, "run: there is no option --non"},
              {"orvel-sim -d $T/none/x run", "", 1, "there is no folder"},
              {place + "orvel-sim run --name ../x", "", 2, "a device's name is"},
              {place + "orvel-sim run --name kitchen", "", 1, "another device lives in "},
              {"orvel-sim run", "", 1, "to have two: orvel-sim run --name NAME"}});
}

TEST_F(Chosen, AScriptLearnsThatTheDeviceIsReadyAndWhatItLacks) {
  expectRows(
      {{"orvel-sim run --ready-fd 5 --isolate -- sh -c 'echo then; ls /proc/$$/fd | grep -cx 5' 5>&1",
        "ready\nthen\n0\n", 1},
       {"orvel-sim run --ready-fd 9 -- true", "", 2, "--ready-fd 9: Bad file descriptor"},
       {"orvel-sim run --ready-fd 1 -- true", "", 2, "--ready-fd: '1' is not a whole number from 3"},
       {"echo '{\"delegate\": {\"name\": \"Stdin\"}}' | orvel-sim run --scenario - -- orvel-sim get name", "Stdin\n"},
       {"orvel-sim run --without powr -- true", "", 2, "did you mean power?"}});
  for (const std::string mode : {"", "--isolate "}) {
    const std::string run = "orvel-sim run --without power " + mode + "-- ";
    expectRows({{run + "orvel-sim restart power", "", 1, "power is not of this device"},
                {run + "sh -c 'orvel-sim set power alive false; orvel-sim set power alive true; orvel-sim restart all; "
                       "orvel-sim status --json'",
                 "...\"pid\":0,\"sinceMs\":0,\"epoch\":0,\"without\":true}"}});
  }
}

TEST_F(Chosen, StepsStopAtTheFirstThatFailsAndSayWhere) {
  const auto device = serve();
  std::ofstream(file("steps")) << "# a trial\nset name 'Living room'\n\nget name\nscreen of\nget name\n";
  expectRows(
      {{"orvel-sim -f $T/steps", "Living room\n", 2, "steps:5: screen: state: expected one of on, off, not 'of'"},
       {"printf 'get name\\nget setting none' | orvel-sim --json -f -",
        "...\"message\":\"standard input:2: setting none is not", 1},
       {"echo run | orvel-sim -f -", "", 2, "standard input:1: run: a step changes a device"},
       {"orvel-sim -f $T/none", "", 2, "none: cannot be read"},
       {"orvel-sim -f $T/steps status", "", 2, "-f: takes no subcommand"}});
}

TEST_F(Chosen, TopFillsATerminalAndLeavesItAsItWas) {
  auto device = serve("--isolate");
  const std::string screen = "TERM=xterm script -qec 'stty rows 30 cols 60; orvel-sim ";
  const Result twice = run(screen + "top --count 2; stty -a' /dev/null");
  const auto count = [&](const std::string& part) {
    int found = 0;
    for (std::size_t at = twice.output.find(part); at != std::string::npos; at = twice.output.find(part, at + 1))
      ++found;
    return found;
  };
  EXPECT_EQ(count("Kitchen Display"), 2) << twice.output;
  EXPECT_EQ(count("\x1b[?1049h"), 1);
  EXPECT_EQ(count("\x1b[?1049l"), 1);
  EXPECT_EQ(count(" icanon") + count(" -icanon") * 2, 1) << twice.output;
  expectRows({{"orvel-sim top 2>&1", "...this is not a terminal"}});
  // The device dies while it is shown.
  const auto shown = start("script -qec 'exec orvel-sim top' /dev/null");
  shown->waitForOutput("Kitchen");
  device->signal(SIGKILL);
  EXPECT_EQ(shown->wait(), 3);
  EXPECT_TRUE(has(shown->output(), "\x1b[?1049l"));
  // It does not answer: Ctrl-C, which the terminal sends, ends it and gives the terminal back.
  device = serve();
  const auto stuck = start("script -qec 'exec orvel-sim --timeout 600 top' /dev/null");
  stuck->waitForOutput("Kitchen");
  device->signal(SIGSTOP);
  stuck->write("\x03");
  EXPECT_EQ(stuck->wait(), 0);
  EXPECT_TRUE(has(stuck->output(), "\x1b[?1049l"));
  device->signal(SIGCONT);
}

}  // namespace
}  // namespace orvel::e2e
