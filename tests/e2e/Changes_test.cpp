// What a change of the device tells its clients, each change once; and what a refused one leaves as it was.
#include <regex>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Changes : public Device {
 protected:
  // What was told of packages so far, one a line: "PACKAGE_ADDED package:a.b UID=7 REPLACING=true".
  std::string packageNews() const {
    const auto lastPart = [](const std::string& name) { return name.substr(name.rfind('.') + 1); };
    std::string news;
    for (const json& entry : view("traffic --past")) {
      const json& told = entry.at("arguments");
      if (entry.value("notification", "") != "broadcast" || !told.contains("data")) continue;
      news += lastPart(told["action"]) + " " + told["data"].get<std::string>();
      for (const json& extra : told.value("extras", json::array())) {
        news += " " + lastPart(extra["key"]) + "=" + extra["value"].dump();
      }
      news += "\n";
    }
    return news;
  }
};
ORVEL_BOTH_MODES(Changes);

// As a watching client prints it.
std::string package(const std::string& what, const std::string& name) {
  return R"({"kind":"package","action":"android.intent.action.PACKAGE_)" + what + R"(","package":")" + name + "\"}";
}

TEST_P(Changes, EachIsToldOnceAndAValueThatStaysIsNot) {
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
      {"set setting k 'no number'", ""},
      {"unset setting k", R"({"kind":"setting","key":"k","value":0})"},
      {"time-sync 5 1795000000000", R"({"kind":"time","oldMs":5,"newMs":1795000000000})"},
      {"broadcast android.intent.action.PACKAGE_ADDED --data http://x", ""},
      {"broadcast android.intent.action.SCREEN_ON --type text/plain", ""},
      {"set package com.quarlo.music versionName 7.0", kUpdated},
      {"set package com.quarlo.music lastUpdateMs 1795000000000", kUpdated},
      {"package replace com.quarlo.music --version-name 8.0", kUpdated},
      {"set package com.quarlo.music metaData k 7", package("CHANGED", kMusic)},
      {"set package com.quarlo.music uid 10099", package("CHANGED", kMusic)},
      {"package remove com.quarlo.music", package("REMOVED", kMusic)},
      {"set packages packages c.d '{\"uid\": 1}'", package("ADDED", "c.d")},
      {"unset packages package c.d", package("REMOVED", "c.d")},
  };
  const auto watcher =
      start("orvelctl watch --json name registration assistant screen package time setting:k --count 22",
            "orvelctl: watching ");
  std::string expected;
  for (const auto& [words, lines] : rows) {
    order(words);
    if (has(words, "set ")) order(words);
    if (!lines.empty()) expected += lines + "\n";
  }
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(withoutTimes(watcher->output()), expected);
  EXPECT_TRUE(has(watcher->error(), "threw")) << "the setting that is not a number: " << watcher->error();

  const std::string updated = R"(PACKAGE_REMOVED package:com.quarlo.music UID=10034 DATA_REMOVED=false REPLACING=true
PACKAGE_ADDED package:com.quarlo.music UID=10034 REPLACING=true
PACKAGE_REPLACED package:com.quarlo.music UID=10034 REPLACING=true
)";
  const std::string others = R"(PACKAGE_CHANGED package:com.quarlo.music UID=10034
PACKAGE_CHANGED package:com.quarlo.music UID=10099
PACKAGE_REMOVED package:com.quarlo.music UID=10099 DATA_REMOVED=true REPLACING=false
PACKAGE_ADDED package:c.d UID=1 REPLACING=false
PACKAGE_REMOVED package:c.d UID=1 DATA_REMOVED=true REPLACING=false
)";
  EXPECT_EQ(packageNews(), updated + updated + updated + others);
}

TEST_P(Changes, ARefusedOrderOrRequestChangesNothing) {
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
      {"37 H 1 64 'A -1 -1 -1 0 1 16 1 'k 2 5 0 0",
       "0 -2 startActivity, intent: the extra \"k\" has the unknown type 2"},
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

}  // namespace
}  // namespace orvel::e2e
