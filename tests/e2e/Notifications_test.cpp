// From the device's change to the line that a watching client prints, each once, and from one client to another; what
// is refused and changes nothing; the assistant.
#include <signal.h>
#include <sys/ioctl.h>

#include <regex>
#include <thread>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Notifications : public Device {
 protected:
  std::unique_ptr<Process> watch(const std::string& words) const {
    return start("orvelctl watch " + words, "orvelctl: watching ");
  }
  std::unique_ptr<Process> hold(const std::string& words) const {
    return start("orvelctl directive --json " + words, "orvelctl: watching ");
  }
  // What was told of packages so far, one a line: PACKAGE_ADDED "package:a.b" UID=7,REPLACING=true
  std::string packageNews() const {
    return outputOf(R"sh(
        orvel-sim traffic --past | sed -nE 's/.*action\.(PACKAGE.*)", data: (.*), extras: (.*)\)$/\1 \2 \3/
          s/"key":"android.intent.extra.([A-Z_]*)","type":"[a-z]*","value":/\1=/g; s/[][{}]//g; /^PACKAGE/p')sh");
  }
};
ORVEL_BOTH_MODES(Notifications);

// As a watching client prints it.
std::string package(const std::string& what, const std::string& name) {
  return R"({"kind":"package","action":"android.intent.action.PACKAGE_)" + what + R"(","package":")" + name + "\"}";
}

TEST_P(Notifications, EachChangeIsToldOnceAndAValueThatStaysIsNot) {
  const std::string kMusic = "com.quarlo.music";
  const std::string kUpdated =
      package("REMOVED", kMusic) + "\n" + package("ADDED", kMusic) + "\n" + package("REPLACED", kMusic);
  const std::pair<const char*, std::string> rows[] = {
      {"set name Hall", R"({"kind":"name","name":"Hall"})"},
      {"account removed", R"({"kind":"registration","registered":false})"},
      {"account added", R"({"kind":"registration","registered":true})"},
      {"maro disconnected", R"({"kind":"assistant","connected":false})"},
      {"screen off", R"({"kind":"screen","on":false})"},
      {"set setting k -3", R"({"kind":"setting","key":"k","value":-3})"},
      {"set setting other 1", ""},
      {"set setting k 'no number'", R"({"kind":"setting","key":"k","value":"no number"})"},
      {"set setting k 007", R"({"kind":"setting","key":"k","value":"007"})"},
      {"unset setting k", R"({"kind":"setting","key":"k","value":null})"},
      {"time-sync 5 1795000000000", R"({"kind":"time","oldMs":5,"newMs":1795000000000})"},
      {"broadcast android.intent.action.PACKAGE_ADDED --data http://x", ""},
      {"broadcast android.intent.action.SCREEN_ON --type text/plain", ""},
      {"set package com.quarlo.music versionName 7.0", kUpdated},
      {"package replace com.quarlo.music --version-name 8.0", kUpdated},
      {"set package com.quarlo.music metaData k 7", package("CHANGED", kMusic)},
      {"set package com.quarlo.music uid 10099", package("CHANGED", kMusic)},
      {"package remove com.quarlo.music", package("REMOVED", kMusic)},
      {"set packages packages c.d '{\"uid\": 1}'", package("ADDED", "c.d")},
      {"unset packages package c.d", package("REMOVED", "c.d")},
  };
  const auto watcher = watch("--json name registration assistant screen package time setting:k --count 21");
  std::string expected;
  for (const auto& [words, lines] : rows) {
    order(words);
    if (has(words, "set ")) order(words);
    if (!lines.empty()) expected += lines + "\n";
  }
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(withoutNumbers(watcher->output()), expected);

  const std::string updated = R"(PACKAGE_REMOVED "package:com.quarlo.music" UID=10034,DATA_REMOVED=false,REPLACING=true
PACKAGE_ADDED "package:com.quarlo.music" UID=10034,REPLACING=true
PACKAGE_REPLACED "package:com.quarlo.music" UID=10034,REPLACING=true
)";
  const std::string others = R"(PACKAGE_CHANGED "package:com.quarlo.music" UID=10034
PACKAGE_CHANGED "package:com.quarlo.music" UID=10099
PACKAGE_REMOVED "package:com.quarlo.music" UID=10099,DATA_REMOVED=true,REPLACING=false
PACKAGE_ADDED "package:c.d" UID=1,REPLACING=false
PACKAGE_REMOVED "package:c.d" UID=1,DATA_REMOVED=true,REPLACING=false
)";
  EXPECT_EQ(packageNews(), updated + updated + others);
}

TEST_P(Notifications, ARefusedOrderOrRequestChangesNothing) {
  const std::vector<json> before = view("state");
  expectRows({{"orvel-sim package install com.quarlo.home", "", 1, "package com.quarlo.home exists already"},
              {"orvel-sim package install a.b --uid -1", "", 1, "/packages/a.b/uid: expected a whole number from 0"}});

  // Code and words of the request, "H" for a good header; the status, and the exception with its message. An intent:
  // presence, length, four texts, no component, no extras, no categories, flags.
  const std::pair<const char*, const char*> requests[] = {
      {"99 H", "0 -7 transaction 99, header: com.quarlo.orveldelegate.IDelegateService has no such transaction"},
      {"33 0 -1 1398362964 'com.quarlo.IOther",
       "0 -1 getDeviceName, header: the request is for the interface \"com.quarlo.IOther\", this is "
       "com.quarlo.orveldelegate.IDelegateService"},
      {"33 0 -1 7 'com.quarlo.orveldelegate.IDelegateService",
       "0 -2 getDeviceName, header: the request header holds 7 where 1398362964 belongs"},
      {"15 H", "0 -2 getSecureSetting, key: the request ends early or holds something else here"},
      {"33 H 7", "0 -2 getDeviceName, end: 4 bytes follow the last argument"},
      {"15 H -1", "0 -3 getSecureSetting: the key is empty"},
      {"37 H 1 52 'A -1 -1 'nope 0 0 0 0", "0 0 "},  // not installed: accepted
      {"37 H 1 56 'A -1 -1 'nope 0 0 0 0",
       "0 -2 startActivity, intent: the length of the intent is given as 56 bytes and is 52"},
      {"37 H 0", "0 -3 startActivity: the intent has no action, no package and no component"},
  };
  const auto asking = client();
  for (const auto& [request, reply] : requests) {
    const char* header = "0 -1 1398362964 'com.quarlo.orveldelegate.IDelegateService";
    asking->write("call orvel_delegate " + std::regex_replace(request, std::regex("H"), header));
    EXPECT_EQ(asking->waitForOutput("reply "), reply) << request;
  }
  EXPECT_EQ(view("state"), before);
}

TEST_P(Notifications, AReaderThatDoesNotReadCannotKeepWatchingFromEnding) {
  run("mkfifo $T/lines");
  const auto unread = watch("package 3<>$T/lines >$T/lines");
  for (int n = 0; n < 10; ++n) order("package added " + std::string(9'000, 'x'));  // more than a pipe holds
  unread->signal(SIGINT);
  EXPECT_EQ(unread->wait(), 0);
}

TEST_P(Notifications, TheLinesThatWaitForAReaderAreWrittenAfterCtrlC) {
  const auto watcher = watch("name");
  for (int n = 0; n < 9; ++n) order("set name " + std::to_string(n) + std::string(9'000, 'x'));
  // Some 48 kB are all that goes into a pipe in pieces of lines.
  for (int held = 0; held < 45'000; std::this_thread::yield()) {  // the test's time limit ends this
    ASSERT_EQ(ioctl(watcher->outputDescriptor(), FIONREAD, &held), 0);
  }
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(watcher->output().back(), '\n') << "and not cut where the pipe was full";
}

TEST_P(Notifications, ASlowReaderLosesTheOldestLinesAndIsToldHowMany) {
  const auto unread = watch("--json broadcast:X");
  run("for n in $(seq 16); do printf 'broadcast X --string k=%0120000d\\n' 0; done | orvel-sim -f -");
  unread->waitForError("lines were dropped, the reader is too slow");
  unread->waitForOutput(R"("sequence":16,)");
  unread->signal(SIGINT);
  EXPECT_EQ(unread->wait(), 0);
  const std::vector<json> told = parseLines(unread->output());
  EXPECT_LT(told.size(), 16U);
  EXPECT_EQ(told.front().at("sequence"), 1) << "what was being written is written";
}

TEST_P(Notifications, AClientThatNeverAnswersHoldsUpNoOtherAndADeadOneIsForgotten) {
  const auto stopped = watch("screen setting:k");
  const auto live = watch("--json --count 3 screen setting:k");
  stopped->signal(SIGSTOP);
  order("set setting k 1", "screen off", "set setting k 2");
  EXPECT_EQ(live->wait(), 0);
  stopped->signal(SIGCONT);
  EXPECT_NE(stopped->waitForOutput("screen"), "") << "late, but not lost";
  expectRows({{"orvel-sim broadcast android.intent.action.SCREEN_ON", "sent to 1 receiver\n"}});
  stopped->signal(SIGKILL);
  stopped->wait();
  expectRows({{"orvel-sim broadcast android.intent.action.SCREEN_ON", "sent to 0 receivers\n"}});
}

TEST_P(Notifications, ADeathAReturnAndALostNetworkAreLinesWithTheirEpoch) {
  const auto end = [&](const std::string& service) {
    if (GetParam()) {
      ::kill(pidOf(service), SIGKILL);
    } else {
      order("restart " + service);
    }
  };
  const auto plain = start("orvelctl-fast watch -E screen network");
  EXPECT_EQ(plain->waitForOutput("subscribed"), "");
  const auto watcher = start("orvelctl-fast watch --json -E --count 3 screen setting:k network");
  watcher->waitForOutput("subscribed");
  order("screen off");
  watcher->waitForOutput("screen");
  end("delegate");
  watcher->waitForOutput(R"("state":"up")");
  order("set setting k 1");
  end("connectivity");
  watcher->waitForOutput(R"("state":"up")");
  order("unset setting k");
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(withoutTimes(watcher->output()),
            R"({"sequence":1,"kind":"subscribed","kinds":["screen","setting:k","network"]})"
            "\n"
            R"({"sequence":2,"epoch":1,"kind":"screen","on":false})"
            "\n"
            R"({"sequence":3,"epoch":1,"kind":"link","service":"delegate","state":"away","held":3,"restored":0,)"
            R"("refused":0,"networkLost":false,"cause":"the service has died"})"
            "\n"
            R"({"sequence":4,"epoch":2,"kind":"link","service":"delegate","state":"up","held":3,"restored":3,)"
            R"("refused":0,"networkLost":false})"
            "\n"
            R"({"sequence":5,"epoch":2,"kind":"setting","key":"k","value":1})"
            "\n"
            R"({"sequence":6,"epoch":1,"kind":"link","service":"connectivity","state":"away","held":0,"restored":0,)"
            R"("refused":0,"networkLost":true,"cause":"the service has died"})"
            "\n"
            R"({"sequence":7,"epoch":2,"kind":"link","service":"connectivity","state":"up","held":0,"restored":0,)"
            R"("refused":0,"networkLost":true})"
            "\n"
            R"({"sequence":8,"epoch":2,"kind":"setting","key":"k","value":null})"
            "\n");

  order("kill delegate");
  const auto patient = start("orvelctl-fast wait delegate --log-level error");
  for (const char* told :
       {"delegate died", "delegate again: 2 of 2 restored", "connectivity died; network: lost, start again",
        "connectivity again", "delegate given up"}) {
    EXPECT_EQ(plain->waitForOutput(std::string("link          ") + told), "");
  }
  patient->waitForError("Giving up connecting to service (orvel_delegate)");
  order("restart delegate");
  EXPECT_EQ(patient->wait(), 0) << "it looks again";
}

TEST_P(Notifications, ABroadcastOfOneClientReachesAnotherAndTheTrafficShowsItWhole) {
  const auto watcher = watch("--count 3 broadcast:com.example.X package");
  const auto reader = watch("--json --count 2 broadcast:com.example.X");
  const auto filtered = watch("--json --count 1 --type t/s --scheme http broadcast:com.example.X");
  expectRows(
      {{"orvelctl am broadcast -a com.example.X --es packageName 'über 💡' --ei i -5 --el l -9000000000 --ez b true "
        "-c c1 -c c2 -f 0x80000010 -n p/.C -p q --receiver-permission com.example.P",
        "sent\n"},
       {"orvel-sim broadcast com.example.X --string packageName=a=b --int i=-5 --bool b=true --long l=9000000000"},
       {"orvel-sim broadcast com.example.X --type t/s --data http://x"},
       {"orvelctl am broadcast -a android.intent.action.PACKAGE_CHANGED package:com.example.app", "sent\n"}});
  watcher->wait();
  EXPECT_TRUE(has(watcher->output(), "com.example.X über 💡")) << watcher->output();
  EXPECT_TRUE(has(watcher->output(), "com.example.X a=b {\"b\":1,")) << watcher->output();
  EXPECT_TRUE(has(watcher->output(), "package       changed com.example.app\n")) << watcher->output();
  reader->wait();
  EXPECT_EQ(withoutNumbers(reader->output()),
            R"({"kind":"broadcast","action":"com.example.X","package":"über 💡","data":"",)"
            R"("extras":{"b":1,"i":-5,"l":-9000000000,"packageName":"über 💡"}})"
            "\n"
            R"({"kind":"broadcast","action":"com.example.X","package":"a=b","data":"",)"
            R"("extras":{"b":1,"i":-5,"l":9000000000,"packageName":"a=b"}})"
            "\n");
  filtered->wait();
  EXPECT_EQ(withoutNumbers(filtered->output()),
            R"({"kind":"broadcast","action":"com.example.X","package":"http://x","data":"http://x","extras":{}})"
            "\n");
  const json sent =
      json::parse(outputOf("orvel-sim traffic --past --json | grep sendBroadcastWithPermission")).at("arguments");
  EXPECT_EQ(sent.at("permission"), "com.example.P");
  EXPECT_EQ(sent.at("intent").at("component"), json::parse(R"({"package":"p","class":"p.C"})"));
  EXPECT_EQ(sent.at("intent").at("categories"), json::parse(R"(["c1","c2"])"));
  EXPECT_EQ(sent.at("intent").at("flags"), static_cast<int>(0x80000010));
  EXPECT_EQ(sent.at("intent").at("extras").size(), 4U) << sent;
}

TEST_P(Notifications, AnEventArrivesWholeAndADeathEndsTheWaitForItsResult) {
  std::ofstream(file("long")) << std::string(1 << 20, 'p');
  expectRows({{"orvelctl event N long --payload-file $T/long"}, {"orvel-sim event-result 0 --delay 60000"}});
  const auto waiting = start("orvelctl event Alerts Set a '' c --flag --payload é");
  start("orvel-sim traffic")->waitForOutput("events.sendEvent(metadata: ");
  const std::vector<json> traffic = view("traffic --past");
  EXPECT_TRUE(has(traffic.at(0)["arguments"], "pp... (104")) << "shortened";
  EXPECT_EQ(traffic.at(2)["arguments"]["payload"], "é") << "behind an event and its result";
  EXPECT_EQ(traffic.at(2)["arguments"]["metadata"], json::parse(R"({"namespace": "Alerts", "name": "Set",
      "event3": "a", "event4": null, "event5": "c", "event6": null, "event7": null, "flag": true})"));
  order("kill events");
  EXPECT_EQ(waiting->wait(), 5);
}

TEST_P(Notifications, ADirectiveReachesTheOneHolderOfItsNamespaceAndThenItsSuccessor) {
  auto alerts = hold("Alerts");
  const auto speaker = hold("Speaker");
  expectRows(
      {{"orvelctl directive Alerts", nullptr, 1, "directive:Alerts: the call failed: Address already in use (-98)"},
       {"orvel-sim directive Alerts a b c d e f g"},
       {"orvel-sim directive Speaker -3"}});
  EXPECT_EQ(alerts->waitForOutput("\"texts\":"), R"(["a","b","d","c","e","f","g"]})");
  EXPECT_EQ(speaker->waitForOutput("\"namespace\":"), R"("Speaker","texts":["-3","","","","","",""]})");
  alerts.reset();  // killed
  expectRows({{"orvel-sim directive Alerts", "", 1, "orvel-sim: no client holds the namespace Alerts\n"}});
  alerts = hold("Alerts");
  const std::string sent = "sent to process " + std::to_string(alerts->pid()) + "\n";
  expectRows({{"orvel-sim directive Alerts next", sent.c_str()}});
  EXPECT_EQ(alerts->waitForOutput("\"texts\":"), R"(["next","","","","","",""]})");
}

TEST_P(Notifications, MetricsAreListedAsTheyWereRecordedUntilTheServiceDies) {
  expectRows(
      {{"orvelctl metric App Start --string s 'x y' --long l -9223372036854775808 --double d 0.1 --timestamp t 5 "
        "--boolean b false --predefined Model"},
       {"orvelctl metric App Stop", "recorded\n"},
       {"orvel-sim metrics --last 1", "...  \"App\" \"Stop\"\n"}});
  EXPECT_EQ(view("metrics").at(0)["fields"], json::parse(R"([{"key": "_Model", "type": "predefined", "value": 5},
      {"key": "b", "type": "boolean", "value": false}, {"key": "d", "type": "double", "value": 0.1},
      {"key": "l", "type": "long", "value": -9223372036854775808}, {"key": "s", "type": "string", "value": "x y"},
      {"key": "t", "type": "timestamp", "value": 5}])"));
  expectRows({{"orvel-sim restart metrics; orvel-sim metrics", ""}});
}

}  // namespace
}  // namespace orvel::e2e
