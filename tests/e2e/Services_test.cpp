// Services that hang, die and come back, what each fault shows a client, and the traffic.
#include <signal.h>

#include <algorithm>
#include <regex>

#include "Device.h"
#include "support/Methods.h"

namespace orvel::e2e {
namespace {

class Services : public Device {};
ORVEL_BOTH_MODES(Services);

TEST_P(Services, OneThatHangsHoldsUpNoOther) {
  limitCalls(1'000);
  const auto waiting = client();
  limitCalls();
  order("hang delegate");
  waiting->write("ask getDeviceName");
  expectRows({{"orvelctl screen", "on\n"}});
  EXPECT_EQ(waiting->waitForOutput("answer "), "'' vesk -110");
}

TEST_P(Services, TrafficShowsEachTransactionDecoded) {
  const auto live = start("orvel-sim traffic --json");
  const auto asking = start("orvelctl setting volume_alarm");
  json shown = json::parse("{" + live->waitForOutput("{"));
  EXPECT_EQ(asking->wait(), 0);
  EXPECT_EQ(shown.at("pid"), asking->pid());
  EXPECT_GE(shown.at("durationMs"), 0);
  for (const char* changing : {"pid", "durationMs", "timeMs", "timeUs", "number", "servicePid", "thread"})
    shown.erase(changing);
  EXPECT_EQ(shown,
            json::parse(R"({"service": "delegate", "method": "getSecureSetting", "code": 15, "client": "orvelctl",
                                   "arguments": {"key": "volume_alarm"}, "reply": "5"})"));

  limitCalls(300);
  order("truncate power 4", "exception power getVersion --message boom", "error activity -71", "hang packages");
  expectRows({{"orvelctl wake-lock partial", nullptr, 1},
              {"orvelctl am foreground", nullptr, 1},
              {"orvelctl pm list packages", nullptr, 4},
              {"orvel-sim traffic --past | sed -E 's/^[0-9:.]{12} +([0-9.]+ ms)? +orvelctl [0-9]+ +//'",
               R"(delegate.getSecureSetting(key: "volume_alarm") = "5"
power.getVersion() throws -5 "boom" cut to 4 bytes, by exception on getVersion, by truncate on *
activity.getRunningAppProcessesInfo() fails with EPROTO (Protocol error), by error on *
packages.getPackages() hangs, by hang on *
)"},
              {"orvel-sim traffic --past --last 2 --not getPackages | grep -o '[a-z]*[.]get[A-Z][A-Za-z]*'",
               "power.getVersion\nactivity.getRunningAppProcessesInfo\n"},
              {"orvel-sim traffic --last -1", "", 2, "'-1' is not a whole number from 1"},
              {"orvel-sim traffic --last 0 --past", "", 2, "'0' is not a whole number from 1"}});
}

TEST_P(Services, WaitEndsWithTheCallOfAClientAndElseWithItsTime) {
  const auto waiting = start("orvel-sim wait call=delegate.getDeviceName 'call=power.*' --timeout 20");
  while (!waiting->hasEnded()) run("orvelctl get name; orvelctl screen");
  EXPECT_EQ(waiting->wait(), 0);
  EXPECT_EQ(linesOf(waiting->output()).size(), 2U) << waiting->output();
  expectRows({{"orvel-sim wait call=power.isInteractive --last 1000 --json", "...\"method\":\"isInteractive\""},
              {"orvel-sim wait call=getDeviceInfo call=power --last 1000 --timeout 0.2", nullptr, 4,
               "orvel-sim: wait: timed out without a call of getDeviceInfo"},
              {"orvel-sim wait call=power.getName", "", 2, "power has nothing that is called 'getName'"},
              {"orvel-sim wait power", "", 2, "expected call=SERVICE.METHOD, not 'power'"}});
}

TEST_P(Services, OneThatIsKilledComesBackAndALostConnectionIsItsOwnersAlone) {
  const auto other = client();
  order("set name Hall");
  if (GetParam()) {
    ::kill(pidOf("delegate"), SIGKILL);
    m_device->waitForError("was killed by signal 9; starting it again");
    awaitRebinding(*other);
  }
  const std::size_t heard = other->error().size();
  order("drop delegate getDeviceName 1");
  expectRows({{"orvelctl get name", "", 5, "name: died (orvel_delegate)"},
              {"orvel-sim traffic --past --json", "...\"drops\":true"}});
  EXPECT_EQ(ask(*other, "getDeviceName"), "'Hall' ");
  EXPECT_FALSE(has(other->error().substr(heard), "has died"));
}

TEST_P(Services, ASecondDeviceInTheDirectoryIsRefusedAndTheFirstGoesOn) {
  const std::string refusal =
      "orvel-sim: another device lives in " + directory().string() + "; to have two: orvel-sim run --name NAME\n";
  expectRows({{"orvel-sim run 2>&1", refusal.c_str(), 1},
              {"orvel-sim run --isolate 2>&1", refusal.c_str(), 1},
              {"orvelctl get name", "Kitchen Display\n"}});
  m_device->signal(SIGINT);
  EXPECT_EQ(m_device->wait(), 0);
  EXPECT_EQ(m_device->error(), "");
  EXPECT_FALSE(std::filesystem::exists(directory()));
}

TEST_P(Services, TheyEndWithTheDeviceHoweverThatEnds) {
  std::vector<pid_t> services;
  for (const char* service :
       {"delegate", "power", "connectivity", "activity", "packages", "events", "metrics", "coordinator"}) {
    services.push_back(pidOf(service));
  }
  m_device->signal(SIGKILL);
  for (const pid_t service : services) {
    if (service != m_device->pid()) test::waitForEndOf(service);
  }
  m_device->wait();
  expectRows({{"orvelctl get name", "", 3}});
  m_device = serve();
  m_device->signal(SIGINT);
  EXPECT_EQ(m_device->wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(directory())) << "nothing is left of the one that was killed, either";
}

// Each fault of each service, and that it leaves no trace.
class Faults : public Services {};
ORVEL_BOTH_MODES(Faults);

TEST_P(Faults, EachShowsAsItselfAndEndsWithoutATrace) {
  const struct {
    const char *service, *method;
    const char* cut;  // what the method gives where the reply ends after the exception code
  } asked[] = {
      {"delegate", "getDeviceName", ""},
      {"power", "isScreenOn", "false"},
      {"connectivity", "registerForNetworkConnectivityChange", "true"},
      {"activity", "getForegroundPackages", "true"},
      {"packages", "getInstalledPackageNames", "true"},
      {"events", "sendEvent", "false"},
      {"metrics", "recordTarselMetricEvent", ""},
  };
  limitCalls(600);
  const auto asking = client();
  limitCalls();
  const auto quoted = [](const char* result) { return "'" + std::string(result) + "' "; };
  for (const auto& row : asked) {
    const test::Method& method = test::method(row.method);
    const std::string failure = quoted(method.failure);
    const std::string refused = quoted(method.refused);
    const std::string good = ask(*asking, row.method);
    const std::string kDied = "has died, re-establishing";
    const std::string kBound = "on_binder_died:Death callback completed";
    const struct {
      const char* orders;  // with @ for the service
      std::string heard;   // from the client's library before it is asked
      std::string answer;
    } steps[] = {
        {"delay @ 30", "", good},
        {"delay @ off; orvel-sim exception @ --code -1", "", failure + "exception -1"},
        {"exception @ off; orvel-sim truncate @ 4", "", quoted(row.cut)},
        {"truncate @ off; orvel-sim error @ -74", "", failure + "vesk -74"},
        {"error @ off; orvel-sim hang @", "", failure + "vesk -110"},
        {"hang @ off; orvel-sim drop @ 1", "", failure + "vesk -104"},
        {"drop | grep @; test $? = 1", kBound, good},  // that was the one
        {"drop @", "", failure + "vesk -104"},
        {"drop | grep '^@ [*] on  # struck once$' && orvel-sim drop @ off", kBound, good},
        {"get @ faults | grep '^{}$' && orvel-sim kill @", kDied, refused},
        {"get @ alive | grep false && orvel-sim restart @", kBound, good},
        {"restart @", kBound, good},  // a living one
        {"flap @ 100 1", kBound, good},
        {"flap | grep @ || orvel-sim flap @ 60000 && orvel-sim kill @", kDied, refused},
        {"flap | grep @; test $? = 1 && orvel-sim set @ alive true", kBound, good},
    };
    for (const auto& [orders, heard, answer] : steps) {
      order(std::regex_replace(orders, std::regex("@"), row.service));
      if (!heard.empty()) asking->waitForError(heard);
      EXPECT_EQ(ask(*asking, row.method), answer) << row.service << ": " << orders;
    }
  }
  double longest = 0;
  for (const json& entry : view("traffic --past")) longest = std::max(longest, entry.value("durationMs", 0.0));
  EXPECT_GE(longest, 30) << "the delay";
}

}  // namespace
}  // namespace orvel::e2e
