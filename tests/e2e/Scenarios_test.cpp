// The scenarios that come with the program, each run and asked.
#include <map>

#include "Device.h"

namespace orvel::e2e {
namespace {

using nlohmann::json;

class Scenarios : public NoDevice {
 protected:
  // What a script prints that runs inside such a device; the programs of this build are found by their names.
  Result runInside(const std::string& scenario, const std::string& script) const {
    return run(
        {"orvel-sim", "run", "--scenario", scenario, "--", "/bin/sh", "-c", "PATH=" ORVEL_BIN ":$PATH; " + script});
  }
};

TEST_F(Scenarios, EachStartsAsWhoItSaysAndShowsWhatIsSpecialAboutIt) {
  const std::map<std::string, std::pair<const char*, const char*>> special = {
      {"asleep", {"orvelctl screen", "off\n"}},
      {"busy", {"orvelctl pm list packages | wc -l; orvel-sim process | wc -l", "440\n265\n"}},
      {"dead",
       {"orvel-sim services | grep -c dead; for s in packages events metrics; do orvel-sim restart $s; done; "
        "orvelctl event N n",
        "3\nSUCCESS\n"}},
      {"dropping",
       {"for n in 1 2 3 4; do orvelctl am process-state com.quarlo.home >/dev/null 2>&1; done; orvel-sim drop",
        "packages * on\n"}},
      {"extremes",
       {"orvelctl setting greatest; orvelctl setting too_great --default -1 2>/dev/null; orvelctl pm list packages | "
        "awk 'length >= 1000' | wc -l",
        "2147483647\n1\n"}},
      {"flapping", {"orvel-sim flap | wc -l; orvel-sim flap events", "5\nevents 40000 20\n"}},
      {"fresh", {"orvelctl get registered; orvelctl pm list packages | wc -l", "no\n8\n"}},
      {"hanging", {"ORVEL_CALL_TIMEOUT_MS=200 orvelctl screen 2>/dev/null; echo $?", "4\n"}},
      {"hostile",
       {"orvelctl get country 2>/dev/null; echo $?; orvelctl event N n", "1\nUNKNOWN_ERROR, may be tried again\n"}},
      {"offline", {"orvelctl event N n", "MARO_DISCONNECTED, may be tried again\n"}},
      {"old",
       {"orvelctl wake-lock partial 2>/dev/null; echo $?; orvelctl wake-lock full; echo $?", "1\nacquired\n0\n"}},
      {"refusing", {"orvelctl event N n 2>/dev/null; echo $?; orvelctl wake-lock full 2>/dev/null; echo $?", "1\n1\n"}},
      {"registered", {"orvelctl get customer-id; orvelctl get country", "quarlo.account.9WX3L1\nGB\n"}},
      {"slow",
       {"orvelctl get type >/dev/null; orvel-sim traffic --past | "
        "grep -cE 'getDeviceInfo.*  ([2-9][5-9][0-9]|[3-9][0-9]{2}|[0-9]{4,})[.0-9]* ms'",
        "1\n"}},
  };
  std::size_t count = 0;
  for (const json& listed : parseLines(run({"orvel-sim", "scenarios", "--json"}).output)) {
    const std::string name = listed.at("name");
    SCOPED_TRACE(name);
    ++count;
    ASSERT_EQ(special.count(name), 1U) << "a scenario that no row tries";
    EXPECT_FALSE(listed.at("about").get<std::string>().empty());
    const json file = json::parse(run({"orvel-sim", "scenarios", name, "--json"}).output);
    const std::string identity =
        file["delegate"]["name"].get<std::string>() + "\n" + file["delegate"]["serialNumber"].get<std::string>() + "\n";
    const auto& [script, shown] = special.at(name);
    const Result result = runInside(name, std::string(script) + "; orvelctl get name; orvelctl get serial-number");
    EXPECT_EQ(result.output, shown + identity) << result.error;
  }
  EXPECT_EQ(count, special.size());
  EXPECT_NE(run({"orvel-sim", "scenarios"}).output.find("\nbusy        much of everything"), std::string::npos);
}

TEST_F(Scenarios, LongAndOddTextsReachAClientWhole) {
  const Result result = runInside("extremes", "orvelctl --json device");
  const json device = parseLines(result.output).at(0);
  EXPECT_EQ(device.at("name"), "👩‍🍳 Küche № ½ – 厨房 – مطبخ – 𝄞 – é");
  EXPECT_EQ(device.at("serialNumber"), "OQ24-\"0x\\-\t7");
  EXPECT_EQ(device.at("type"), "QDT-🖥-8");
}

TEST_F(Scenarios, WhatAScriptDoesToOneAndAPrintedOneAreScenariosToo) {
  const std::string printed = run({"orvel-sim", "scenarios", "busy"}).output;
  EXPECT_EQ(printed, run({"orvel-sim", "scenarios", "busy"}).output) << "by chance";
  const Result again =
      runInside("busy",
                "orvel-sim scenarios busy >$TMPDIR/a.json; orvel-sim set name Again; orvel-sim kill metrics;"
                "orvel-sim state >$TMPDIR/b.json; orvel-sim run --scenario $TMPDIR/a.json -- orvelctl get name;"
                "orvel-sim run --scenario $TMPDIR/b.json -- sh -c 'orvel-sim get name; orvel-sim kill | grep -c dead'");
  EXPECT_EQ(again.output, "Show Room\nAgain\n1\n") << again.error;
  const Result unknown = run({"orvel-sim", "run", "--scenario", "buzzy", "--", "/bin/true"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_NE(unknown.error.find("no scenario is called buzzy; there are asleep, busy, "), std::string::npos)
      << unknown.error;
  EXPECT_NE(run({"orvel-sim", "run", "--scenario", "busy.json"}).error.find("busy.json: cannot be read"),
            std::string::npos);
}

}  // namespace
}  // namespace orvel::e2e
