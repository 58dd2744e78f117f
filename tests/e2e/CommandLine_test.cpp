// What a person types and gets: results, messages, exit statuses, and in bash what completes the line.
#include <signal.h>

#include <functional>

#include "Device.h"

namespace orvel::e2e {
namespace {

class CommandLine : public NoDevice {
 protected:
  // A command line of orvelctl that succeeds because of what happens while it runs.
  void succeedsWhen(const std::string& words, const std::function<void()>& happens) const {
    const auto waiting = start("orvelctl " + words);
    happens();
    EXPECT_EQ(waiting->wait(), 0) << words << "\n" << waiting->error();
  }

  std::unique_ptr<Process> m_late;
};

TEST_F(CommandLine, WrongWordsListWhatThereIs) {
  const std::pair<const char*, const char*> rows[] = {
      {"orvelctl frobnicate", "there are device, get, setting"},
      {"orvelctl get shoe-size", "serial-number"},
      {"orvelctl watch setting:", "setting:"},
      {"orvelctl am", "am: a subcommand is required; there are broadcast, "},
      {"orvelctl am broadcast -a X --ei k 99999999999", "--ei k: expected a number of 32 bits"},
      {"orvelctl am start -a X --es k 1 --es k 2", "--es k: given twice"},
      {"orvelctl am start -n com.example.app", "expected PACKAGE/CLASS"},
      {"orvelctl setting k --default x", "--default: expected a number of 32 bits, not 'x'"},
      {"orvelctl wait toaster", "nothing is called 'toaster'; there are device, delegate, power,"},
      {"orvelctl wait scren=on", "did you mean screen?"},
      {"orvelctl wait setting:=1", "setting: needs a key"},
      {"orvelctl wait screen=onn", "screen is one of on, off, not 'onn'"},
      {"orvelctl wait screen=on --fail-on name", "name needs a value, as in name=VALUE"},
      {"orvelctl wait power --state stopped", "wait: --state: expected one of up, away, given-up, not 'stopped'"},
      {"orvelctl describe getDeviceNam", "did you mean getDeviceName?"},
      {"orvelctl call registerForTimeSync", "tells by callback; use: orvelctl watch time"},
      {"orvelctl call getSecureSetting", "key: is missing"},
      {"orvelctl call getSecureSetting '{'", "expected a JSON object, as in orvelctl call delegate.getSecureSetting"},
      {"orvelctl call getSecureSetting '{\"kee\": 1}'", "nothing is called 'kee'; did you mean key?"},
      {"orvelctl call getPackageNamesForUid '{\"uid\": 2147483648}'", "uid: expected an integer of 32 bits"},
      {"orvelctl call startActivity '{\"intent\": {\"extras\": {\"k\": 1.5}}}'", "intent.extras.k: expected a text,"},
      {"orvelctl am broadcast-int X none k 1", "am broadcast-int: --component: expected PACKAGE/CLASS, not 'none'"},
      {"orvelctl wake-lock half", "wake-lock: kind: expected one of partial, full, not 'half'"},
      {"orvelctl pm resource com.quarlo.home seven", "pm resource: id: expected a number, not 'seven'"},
      {"orvelctl am start -n a/.B c/.D", "'c/.D' and --component exclude each other"},
      {"orvel-sim kill toaster", "no service is called 'toaster'; there are delegate, power"},
      {"orvel-sim delay power getName 5", "isInteractive, wakeUpDevice, getVersion"},
      {"orvel-sim delay power -5", "delay: expected a number of milliseconds, or off, or a method of power, not '-5'"},
      {"orvel-sim run --scenario buzzy -- true", "no scenario is called 'buzzy'; there are asleep, busy, "},
      {"echo '{\"delegate\": {\"name\": \"a\\u0000b\"}}' >$T/s; orvel-sim run --scenario $T/s",
       "/delegate/name: holds a NUL"},
      {"printf '{\\n\"power\": {,}}' >$T/s; orvel-sim run --scenario $T/s", "line 2"},
      {"orvel-sim run --scenario /dev/zero", "longer than 64 MiB"},
      {"orvel-sim run --web=70000 -- true", "--web: expected a port from 0 to 65535, not '70000'"},
      {"orvel-sim broadcast X --string k", "--string: expected KEY=TEXT, not 'k'"},
      {"orvel-sim broadcast X --int k=2147483648", "--int k: expected a whole number from -2147483648 to 2147483647"},
      {"orvel-sim broadcast X --bool k=yes", "--bool k: expected true or false"},
      {"orvel-sim replay $T/none", "none: cannot be read"},
      {"directive-handler", "usage: directive-handler NAMESPACE"},
  };
  for (const auto& [command, error] : rows) expectRows({{command, "", 2, error}});
  expectRows({{"orvelctl watch --help", "...and watch must be started again"}});
}

TEST_F(CommandLine, AMissingOrKilledDeviceIsSaidInOneLineWithItsDirectory) {
  for (const char* example : {"status-line", "package-watcher", "directive-handler Alerts"}) {
    expectRows({{example, "", 1, ": there is no device"}});
  }
  for (const std::string command : {"orvelctl watch", "orvelctl get name", "orvel-sim state"}) {
    const auto expectNoDevice = [&] {
      const Result result = run(command);
      EXPECT_EQ(result.status, 3) << command;
      EXPECT_TRUE(has(result.error, directory())) << result.error;
      EXPECT_EQ(result.error.find('\n'), result.error.size() - 1) << "not one line: " << result.error;
    };
    expectNoDevice();
    serve()->signal(SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(directory()));
    expectNoDevice();
    std::filesystem::remove_all(directory());
  }
}

TEST_F(CommandLine, EachQueryPrintsItsValueAsTextAndAsOneObject) {
  const auto device = serve();
  std::ofstream(file("package")) << R"({"versionCode": -7, "versionName": "1.0 β", "uid": 10777,
      "metaData": {"n": 5, "t": "five"}, "resources": {"2131427329": "line 1\nline 2"},
      "receivers": [{"class": "A", "actions": ["com.example.X"]}, {"class": "B", "actions": ["com.example.X"]}]})";
  order("set packages package app \"$(cat $T/package)\"");
  order("process start app:work --package app --importance 125");
  const struct {
    const char *query, *text, *object;  // the object may be a part
  } rows[] = {
      {"get registered", "yes", R"({"registered":true})"},
      {"setting some_key --default -7", "-7", R"({"key":"some_key","value":-7})"},
      {"setting some_key --text", "", R"({"key":"some_key","value":null})"},
      {"setting some_key --text --default none", "none", R"({"key":"some_key","value":"none"})"},
      {"setting volume_alarm --text", "5", R"({"key":"volume_alarm","value":"5"})"},
      {"wait power", "power         up          epoch 1", R"({"service":"power","state":"up","epoch":1,"held":0,)"},
      {"assistant", "connected", R"({"assistantConnected":true})"},
      {"wake-lock partial", "acquired", R"({"wakeLock":"partial","acquired":true})"},
      {"pm version-code app", "-7", R"({"package":"app","versionCode":"-7"})"},
      {"pm version-name app", "1.0 β", R"({"package":"app","versionName":"1.0 β"})"},
      {"pm meta-data app n --int", "5", R"("key":"n","value":5)"},
      {"pm meta-data app t --default ?", "five", R"("value":"five")"},
      {"pm meta-data app n --default ?", "?", R"("value":"?")"},
      {"pm meta-data app t --flags 0", "", R"("value":"")"},
      {"pm resource app 0x7f0b0001", "line 1\nline 2", R"("text":"line 1\nline 2")"},
      {"pm list packages --uid 10777", "app", R"({"uid":10777,"packages":["app"]})"},
      {"pm has-feature android.hardware.wifi", "true", R"("available":true)"},
      {"pm query-receivers com.example.X", "app\napp", R"("action":"com.example.X")"},
      {"am process-state app", "importance 125", R"("running":true,"importance":125,"focused":false)"},
      {"am process-state none", "not running", R"("running":false,"importance":-1)"},
      {"am broadcast-int -a X -n a/.B k 1", "sent", R"({"sent":true})"},
      {"am start app", "sent", R"({"sent":true})"},
      {"am process-state app", "importance 100, focused", R"("focused":true)"},
  };
  for (const auto& row : rows) {
    const std::string query = std::string("orvelctl ") + row.query;
    expectRows({{query, (std::string(row.text) + "\n").c_str()},
                {query + " --json", (std::string("...") + row.object).c_str()}});
  }
  expectRows(
      {{"orvelctl pm list packages --uid 1", ""},
       {"orvelctl pm list packages app | grep -x app; orvelctl pm list packages app | grep -vc app", "app\n0\n", 1},
       {"orvelctl am foreground | grep -cx app", "1\n"},
       {"orvelctl --json device",
        R"({"name":"Kitchen Display","serialNumber":"OQ24-0713-5521","type":"QDT-DISPLAY-8",)"
        R"("customerId":"quarlo.account.7Q2M4X","country":"DE","marketplace":"QMP-DE-01","registered":true,)"
        R"("screenOn":true,"assistantConnected":true})"
        "\n"}});
}

TEST_F(CommandLine, AFailureIsToldFromAnEmptyResultByItsStatus) {
  const auto device = serve("--isolate");
  order("set setting word seven", "set power interfaceVersion 1",
        "exception delegate getDeviceName --code -8 --message boom --trace 'at work'",
        "exception delegate sendBroadcast --message 'not now'", "exception delegate registerForSecureSettings",
        "truncate delegate getCOR 4", "truncate activity 8", "hang delegate getPFM");
  limitCalls(800);
  expectRows({{"orvelctl get name --log-level error", "", 1, "Stack Trace: at work"},
              {"orvelctl get name 2>&1", "orvelctl: name: exception -8: boom\n", 1},
              {"orvelctl get marketplace --timeout 0.1", "", 4, "gave up after 0.1 s"},
              {"orvelctl setting word --text", "seven\n"},
              {"orvelctl wake-lock partial", "", 1, "the power manager is too old to keep the processor awake"},
              {"orvelctl device --json", R"(..."country":null,"marketplace":null,)", 1},
              {"orvelctl device", "...marketplace    ?\n", 1},
              {"orvelctl am launch none 2>&1", "orvelctl: package none is not installed\n", 1},
              {"orvelctl --json pm version-name none", "...\"reason\":\"not-installed\"", 1},
              {"orvelctl pm meta-data none k --int --default 7", "7\n"},
              {"orvelctl pm meta-data com.quarlo.home none", "\n", 0, "package com.quarlo.home has no entry none"},
              {"orvelctl am launch com.quarlo.metrics 2>&1",
               "orvelctl: package com.quarlo.metrics has nothing to launch\n", 1},
              {"orvelctl setting none", "0\n", 0, "setting none is not set; 0 counts"},
              {"orvelctl watch screen setting:k", nullptr, 1, "watching setting:k: exception -"}});
  limitCalls();
  order("kill delegate");
  expectRows({{"orvelctl screen --timeout 20", "on\n"}, {"orvelctl screen 2>&1", "on\n"}});
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto waiting =
        start("orvelctl get name", "which is dead; try: orvel-sim restart delegate; Ctrl-C gives up\n");
    EXPECT_EQ(linesOf(waiting->error()).size(), 1U) << waiting->error();
    waiting->signal(signal);
    EXPECT_EQ(waiting->wait(), 128 + signal);
    EXPECT_EQ(waiting->output(), "");
  }
}

// A name that would turn a terminal red, and forge a line.
TEST_F(CommandLine, WhatAServiceSaysReachesNoTerminalAsAControlCharacter) {
  const auto device = serve();
  const auto watcher = start("orvelctl watch --count 2 name setting:k", "watching");
  order("set name \"$(printf 'c\\nd\\033[31m\\302\\233')\"", "set setting k \"$(printf 'a\\rb')\"",
        "set packages package \"$(printf 'p\\nq')\" '{\"uid\": 7}'");
  watcher->wait();
  EXPECT_TRUE(has(watcher->output(), R"(name          c\nd\x1b[31m\u009b)"
                                     "\n"))
      << watcher->output();
  EXPECT_TRUE(has(watcher->output(), R"(k a\rb)"
                                     "\n"))
      << watcher->output();
  const char* const name = R"(c\nd\x1b[31m\u009b)"
                           "\n";
  expectRows({{"orvelctl get name", name},
              {"orvelctl call getDeviceName", name},
              {"orvelctl get name --json", R"({"name":"c\nd\u001b[31m\u009b"})"
                                           "\n"},
              {"orvelctl setting k --text", "a\\rb\n"},
              {"orvelctl pm list packages --uid 7", "p\\nq\n"},
              {"orvel-sim exception delegate --message \"$(printf 'x\\033y')\"; orvelctl get name", "", 1, "x\\x1by"},
              {"orvelctl get name --log-level error", "", 1, "Received error: -5 [x\\x1by]"}});
}

TEST_F(CommandLine, WaitEndsWhenAllIsTrueAndElseTellsHowEachSubjectStood) {
  succeedsWhen("wait device=ready screen=on name!= --for 20", [this] { m_late = serve(); });
  const std::pair<const char*, const char*> rows[] = {
      {"screen=off name=Hall", "set name Hall; orvel-sim screen off"},
      {"setting:k!=", "set setting k 1"},
      {"setting:k=2 setting:l=", "set setting k 2"},
      {"package:a.b=installed", "package install a.b --version-name 1.0"},
      {"package:a.b=2.0", "package replace a.b --version-name 2.0"},
      {"package:a.b=absent foreground!=a.b", "package remove a.b"},
      {"foreground=com.quarlo.photos",
       "process start com.quarlo.photos; orvel-sim process foreground com.quarlo.photos"},
      {"registration=unregistered assistant=connected", "account removed"},
      {"--fail-on metrics=away power", "screen on"},
  };
  for (const auto& [conditions, change] : rows) {
    succeedsWhen(std::string("wait --for 20 ") + conditions, [this, order = change] { this->order(order); });
  }
  const auto network = start("orvelctl wait network=disconnected");  // known from a change on that it hears
  while (!network->hasEnded()) order("network connected", "network disconnected");
  EXPECT_EQ(network->wait(), 0);
  expectRows({{"orvelctl wait screen=on setting:k=3 foreground=x --timeout 0.3", "", 4,
               "wait: timed out after 0.3 s: screen is on; setting:k is 2; foreground is "},
              {"orvelctl wait screen=off --fail-on delegate=away --fail-on screen=on", "", 1,
               "wait: screen is on, for which --fail-on ends it"},
              {"orvel-sim hang power; orvelctl --json wait screen=on device=ready --timeout 0.1", "...timed-out", 4,
               "screen is not known: "}});
  order("hang power off", "kill power");
  expectRows({{"orvelctl wait screen=on device=ready --timeout 0.3", "", 4,
               "screen is not known: power is connecting; device is without power"}});
}

TEST_F(CommandLine, EachResultOfAnEventIsToldWithItsAdviceAndItsStatus) {
  const auto device = serve("--isolate");
  const std::string set = "orvel-sim event-result ";
  const std::string send = "; orvelctl event N n --timeout ";
  expectRows({{set + "SUCCESS_NO_CONTENT --before" + send + "20", "SUCCESS_NO_CONTENT\n"},
              {set + "MARO_DISCONNECTED --twice" + send + "20", "MARO_DISCONNECTED, may be tried again\n", 1},
              {set + "INTERNAL_ERROR --delay 20" + send + "20", "INTERNAL_ERROR, may be tried again\n", 1},
              {set + "INVALID_EVENT" + send + "20", "INVALID_EVENT, not to be tried again\n", 1},
              {set + "-1" + send + "20", "UNKNOWN_ERROR, may be tried again\n", 1},
              {set + "SUCCESS --malformed" + send + "20", "UNKNOWN_ERROR, may be tried again\n", 1},
              {set + "SUCCESS --never" + send + "20", "LOST, may have been handled\n", 5},
              {set + "SUCCESS --delay 60000" + send + "0.2", "", 4},
              {set + "SUCCESS --delay 60000" + send + "20 --deadline 0.2", "TIMEOUT, may be tried again\n", 4},
              {set + "SUCCESS --reply 2" + send + "20", "", 1, "event N n: refused: "}});
}

TEST_F(CommandLine, EachVerbShowsWhatIsInForceInWordsThatWouldSetIt) {
  const auto device = serve();
  const char* const rows[][3] = {
      {"screen off", "screen", "off\n"},
      {"account added a.b", "account", "added a.b\n"},
      {"set customerId '<unknown>'", "account", "removed\n"},
      {"maro disconnected", "maro", "disconnected\n"},
      {"event-result 4 --delay 5 --reply 0 --twice", "event-result", "TIMEOUT --delay 5 --reply 0 --twice\n"},
      {"delay delegate 5", "delay", "delegate * 5  # has not struck yet\n"},
      {"delay delegate getDeviceName 7", "delay delegate",
       "delegate * 5  # has not struck yet\ndelegate getDeviceName 7  # has not struck yet\n"},
      {"delay power 3", "delay delegate getDeviceName", "delegate getDeviceName 7  # has not struck yet\n"},
      {"delay delegate '*' off; orvel-sim delay power off", "delay --json",
       R"({"faults":[{"service":"delegate","method":"getDeviceName","fault":"delay","value":7,"struck":0}]})"
       "\n"},
      {"screen on", "hang --json; orvel-sim flap --json", "{\"faults\":[]}\n{\"flaps\":[]}\n"},
      {"drop power isInteractive 3", "drop", "power isInteractive 3  # has not struck yet\n"},
      {"truncate coordinator 0", "truncate", "coordinator * 0  # has not struck yet\n"},
      {"exception events --code -1 --message no", "exception",
       "events * on --code -1 --message no  # has not struck yet\n"},
      {"flap events 600000 3", "flap", "events 600000 3\n"},
      {"set processes '{}'; orvel-sim process start a --uid 7; orvel-sim process foreground a", "process --json",
       R"({"process":"a","pid":4000,"uid":7,"importance":100,"packages":["a"],"focused":true})"
       "\n"},
      {"process stop a", "process", ""},
  };
  for (const auto& [set, read, shown] : rows) {
    order(set);
    expectRows({{std::string("orvel-sim ") + read, shown}});
  }
  expectRows({{"orvel-sim get setting volume 2>&1", "orvel-sim: setting volume is not set\n", 1}});
  EXPECT_EQ(view("get"), view("state"));
}

TEST_F(CommandLine, WhatCannotBeWrittenIsAFailureSaidInOneLine) {
  const auto device = serve("--isolate");
  order("set name " + std::string(20'000, 'x'));  // more than is kept back before it is written
  for (const std::string command :
       {"orvelctl get name", "orvelctl --json device", "orvelctl doctor", "orvelctl --help-all", "orvel-sim state",
        "orvel-sim services --json", "orvel-sim traffic --past", "orvel-sim --help"}) {
    for (const char* redirection : {" >/dev/full", " >&-", " >&4 4>&-"}) {
      // Descriptor 4 is a pipe without a reader.
      const Result result = run("mkfifo $T/p; exec 3<>$T/p 4>$T/p 3<&-; rm $T/p; exec " + command + redirection);
      EXPECT_EQ(result.status, 1) << command << redirection;
      EXPECT_TRUE(has(result.error, "cannot write to standard output: ")) << result.error;
      EXPECT_EQ(result.error.find('\n'), result.error.size() - 1) << command << redirection << ":\n" << result.error;
    }
  }
  const auto watcher = start("orvelctl --json watch screen >/dev/full", "orvelctl: watching ");
  order("screen off");
  EXPECT_EQ(watcher->wait(), 1);
}

TEST_F(CommandLine, ColoursAreForTerminalsThatShowThemAndPeopleWhoWantThem) {
  for (const std::string command : {"orvelctl get shoe-size", "orvelctl doctor", "orvel-sim kill toaster"}) {
    const std::string on_terminal = " script -qec '" + command + "' /dev/null | grep -c '\x1b.1;31m'";
    expectRows({{"TERM=xterm NO_COLOR=" + on_terminal, "1\n"},
                {"TERM=xterm NO_COLOR=1" + on_terminal, "0\n", 1},
                {"TERM=dumb NO_COLOR=" + on_terminal, "0\n", 1},
                {"TERM=xterm NO_COLOR= " + command + " 2>&1 | grep -c '\x1b'", "0\n", 1}});
  }
}

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
      {"orvelctl watch screen setting:c", "colon:ed\n"},
      {"orvelctl directive Sp", "Speaker:1\n"},
      {"orvelctl am start --package=com.quarlo.mus", "com.quarlo.music\n"},
      {"orvel-sim process foreground com.quarlo.mus", "com.quarlo.music\n"},
      {"orvel-sim hang delegate getDeviceN", "getDeviceName\n"},
      {"orvel-sim set power screenOn ", "true\nfalse\n"},
      {"orvel-sim unset setting two", "two\\ words\n"},
      {"orvel-sim set packages package com.quarlo.music version", "versionCode\nversionName\n"},
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
