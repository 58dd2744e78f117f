// From the device's change to the line that a watching client prints, and from one client to another; the assistant.
#include <signal.h>

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
};
ORVEL_BOTH_MODES(Notifications);

TEST_P(Notifications, TheEndOfWatchingIsPromptAndGoodHoweverItComes) {
  const auto interrupted = watch("network screen");
  order("network disconnected");
  EXPECT_EQ(interrupted->waitForOutput("network  "), "     disconnected") << "written at once, into a pipe too";
  interrupted->signal(SIGINT);
  EXPECT_EQ(interrupted->wait(), 0);
  // A reader that does not read cannot keep it from ending.
  run("mkfifo $T/lines");
  const auto unread = watch("package 3<>$T/lines >$T/lines");
  for (int n = 0; n < 10; ++n) order("package added " + std::string(9'000, 'x'));  // more than a pipe holds
  unread->signal(SIGINT);
  EXPECT_EQ(unread->wait(), 0);
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

TEST_P(Notifications, ABroadcastOfOneClientReachesAnotherAndTheTrafficShowsItWhole) {
  const auto watcher = watch("--count 3 broadcast:com.example.X package");
  expectRows(
      {{"orvelctl am broadcast -a com.example.X --es packageName 'über 💡' --ei i -5 --el l -9000000000 --ez b true "
        "-c c1 -c c2 -f 0x80000010 -n p/.C -p q --receiver-permission com.example.P",
        "sent\n"},
       {"orvel-sim broadcast com.example.X --string packageName=a=b --int i=-5 --bool b=true --long l=9000000000"},
       {"orvelctl am broadcast -a android.intent.action.PACKAGE_CHANGED package:com.example.app", "sent\n"}});
  watcher->wait();
  EXPECT_TRUE(has(watcher->output(), "com.example.X über 💡")) << watcher->output();
  EXPECT_TRUE(has(watcher->output(), "com.example.X a=b")) << watcher->output();
  EXPECT_TRUE(has(watcher->output(), "PACKAGE_CHANGED com.example.app")) << watcher->output();
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
      {{"orvelctl directive Alerts", nullptr, 1, "Internal:vesk service register failed. nspace=Alerts, err=-98"},
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
