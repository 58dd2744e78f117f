// Recordings: what is written, what is kept to oneself, and what a device that is made of one says.
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <regex>
#include <set>

#include "Device.h"

namespace orvel::e2e {
namespace {

class Recording : public Device {
 protected:
  std::unique_ptr<Process> record(const std::string& more = "") const {
    return start("orvel-sim traffic --record $T/session.jsonl " + more, "orvel-sim: recording into ");
  }

  std::vector<json> endOf(Process& recorder) const {
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.error();
    return parseLines(contentOf(file("session.jsonl")));
  }

  // In the place of the device.
  void replace(const std::string& command) {
    m_device->signal(SIGINT);
    m_device->wait();
    m_device = start(command);
    m_device->waitForOutput("serving in ");
  }

  // The output and the status of each, as one text. "; " separates the questions.
  std::string ask(const std::string& questions) const {
    const std::string more = std::regex_replace(questions, std::regex("; "), "; echo $$?; orvelctl ");
    return outputOf("orvelctl " + more + "; echo $?");
  }

  // All that a client can ask and be told, as one text. The device itself is made to tell by `orders`.
  std::string session(const std::vector<std::string>& orders) const {
    std::string all =
        ask("device; setting volume_alarm; setting unset --default 9; wake-lock partial; wake-lock full; "
            "am broadcast -a X --es k v --el l 7 -c C -f 0x10000000; am broadcast -a X --receiver-permission P; "
            "am broadcast-int X a.b/.C k 5; am start -n com.orvel.camera/.CameraActivity; "
            "am start-service -n com.orvel.alarms/.Service; am start-foreground-service -n com.orvel.alarms/.Service; "
            "am foreground; am process-state com.orvel.camera; am launch com.orvel.camera; pm list packages; "
            "pm list packages --uid 1000; pm version-code com.orvel.camera; pm version-name no.such.package; "
            "pm meta-data com.orvel.camera com.orvel.camera.maximumSeconds --int; pm resource com.orvel.camera 1; "
            "pm has-feature android.hardware.camera; pm query-receivers android.intent.action.BOOT_COMPLETED; "
            "event Speaker Volume a b --payload 7; metric player start --long ms 120 --double d 0.1 --string s t");
    // What comes from two services has no order.
    std::vector<std::unique_ptr<Process>> watchers;
    for (const char* watch : {"watch --json --count 3 name screen setting:k", "watch --json --count 1 network",
                              "directive --json --count 2 Alerts"}) {
      watchers.push_back(start(std::string("orvelctl ") + watch, "orvelctl: watching "));
    }
    for (const std::string& words : orders) order(words);
    for (const auto& watcher : watchers) {
      const int status = watcher->wait();
      all += std::to_string(status) + "\n" + withoutTimes(watcher->output());
    }
    return all;
  }
};
ORVEL_BOTH_MODES(Recording);

TEST_P(Recording, ASessionOfEveryMethodIsReplayedByteForByte) {
  const auto recorder = record("--unmasked");
  const std::string asked = session({"set name Hall", "set setting k 7", "screen off", "network disconnected",
                                     "directive Alerts a b c", "directive Alerts 'é\"\\'"});
  std::set<std::string> used;
  for (const json& line : endOf(*recorder)) {
    if (line.contains("method")) used.insert(line["service"].get<std::string>() + line["code"].dump());
  }
  // Of the delegate service, power, metrics and connectivity; one each of activity, packages and events.
  EXPECT_EQ(used.size(), 21U + 4 + 1 + 2 + 3);
  replace("orvel-sim replay $T/session.jsonl");
  EXPECT_EQ(session({}), asked);
}

TEST_P(Recording, WhatIdentifiesTheOwnerIsNowhereAndTheReplayStillFits) {
  order("set name 'Annas Kitchen'", "set serialNumber SN-original", "set customerId account-original",
        "set setting number 128", "set setting text setting-original");
  const auto recorder = record();
  const auto watcher = start("orvelctl watch --json --count 2 name setting:k", "orvelctl: watching ");
  const auto holder = start("orvelctl directive --count 1 Alerts", "orvelctl: watching ");
  const std::string questions =
      "get serial-number >/dev/null; get customer-id >/dev/null; setting number; "
      "am broadcast -a X -d content:data-original --es k extra-original; "
      "am start -a View -d content:data-original --es k intent-original; "
      "event Speaker Say event-original --payload payload-original; "
      "event Speaker Say event-original --payload payload-second-original; metric a b --string k metric-original; "
      "get name >/dev/null; pm has-feature 'of Annas Kitchen'";
  const std::string answers = ask(questions);
  ask("setting text; get type");
  order("directive Alerts directive-original", "set name Second-original", "set setting k 7");
  holder->wait();
  watcher->wait();
  endOf(*recorder);
  const std::string text = contentOf(file("session.jsonl"));
  for (const char* original : {"original", "Annas Kitchen", "masked-\""}) EXPECT_FALSE(has(text, original)) << original;
  for (const char* kept : {"QDT-DISPLAY-8", "\"content:masked-", "\"of masked-", "\"reply\":\"128\""}) {
    EXPECT_TRUE(has(text, kept)) << kept;
  }
  replace("orvel-sim replay $T/session.jsonl");
  EXPECT_EQ(ask(questions), answers);
  expectRows(
      {{"orvelctl get name", "...masked-"},
       {"orvelctl event Speaker Say event-original --payload another", "", 1}});  // no mask stands for a third text
}

TEST_P(Recording, ARecorderThatSleepsThroughThousandsOfEntriesLosesNone) {
  const auto recorder = record();
  const auto viewer = start("orvel-sim traffic --json");  // which has not so much room
  run("orvelctl get name");
  viewer->waitForOutput("getDeviceName");
  std::string packages;
  for (int n = 0; n < 150; ++n) packages += " package";
  const auto watcher = start("orvelctl watch --count 1500" + packages, "orvelctl: watching ");
  for (const auto& stopped : {&recorder, &viewer}) (*stopped)->signal(SIGSTOP);
  for (int n = 0; n < 10; ++n) order("package added a.b");
  watcher->wait();
  run("orvelctl get name");  // behind which all of that is in the traffic, from whichever process it comes
  viewer->signal(SIGINT);    // before it has seen any of that
  for (const auto& stopped : {&recorder, &viewer}) (*stopped)->signal(SIGCONT);
  const std::vector<json> lines = endOf(*recorder);
  EXPECT_EQ(viewer->wait(), 0);
  std::uint64_t seen = 0;
  std::uint64_t missing = 0;
  for (const json& line : parseLines(viewer->output())) {
    const bool isGap = line.contains("gap");
    const std::uint64_t entries = isGap ? line["gap"].at("entries").get<std::uint64_t>() : 1;
    EXPECT_EQ(isGap ? line["gap"].at("after").get<std::uint64_t>() : line.at("number").get<std::uint64_t>() - 1, seen);
    seen += entries;
    missing += isGap ? entries : 0;
  }
  EXPECT_GT(missing, 500U);
  EXPECT_GE(seen, lines.size() - 1);
  std::size_t notifications = 0;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].at("number"), i);
    notifications += lines[i].contains("notification") ? 1 : 0;
  }
  EXPECT_EQ(notifications, 1500U);
}

TEST_P(Recording, WhatADeviceHadNoRoomForIsToldAtTheEndToo) {
  std::ofstream(file("long")) << std::string(3'000'000, 'p');
  order("exception events");  // so that nothing short follows
  const auto recorder = record();
  recorder->signal(SIGSTOP);
  run("for n in $(seq 24); do orvelctl event N n --payload-file $T/long; done");
  recorder->signal(SIGINT);
  recorder->signal(SIGCONT);
  const json last = endOf(*recorder).back();
  ASSERT_TRUE(last.contains("gap")) << recorder->error();
  const auto after = last["gap"].at("after").get<int>();
  EXPECT_GE(last["gap"].at("entries").get<int>() + after, 24);
  EXPECT_TRUE(has(recorder->error(), " are missing")) << recorder->error();
}

TEST_P(Recording, APictureIsWholeOrNotThereAndShowsDeaths) {
  const auto recorder = record();
  run("orvelctl get name");
  order("kill power", "restart power");
  endOf(*recorder);
  const std::string convert = "orvel-sim convert $T/session.jsonl ";
  expectRows(
      {{convert + "--trace $T/t.json --mermaid $T/m.mmd"},
       {"grep -o 'power [a-z][a-z ]*' $T/t.json", "power died\npower was started\n"},
       {"grep -c 'main thread' $T/t.json", "1\n"},
       {"sed -n 's/p[0-9]*:/CLIENT:/p; s/^ *Note //p' $T/m.mmd | sed 's/(.*//'",
        "    delegate-->>CLIENT: \"masked-1\" \nover power: died\nover power: started\n"},
       {convert + "getDevicename --trace $T/x.json", "", 2, "did you mean getDeviceName?"},
       {convert + "power --mermaid /dev/stdout --force | grep -c getDeviceName", "0\n", 1},
       {"ulimit -f 1; exec " + convert + "--force --trace $T/t.json", "", 1, "t.json: cannot be written: File"},
       {"grep -c 'power died' $T/t.json; ls $T/t.json.new", "1\n", 2, "t.json.new"},
       {"ulimit -f 1; exec " + convert + "--trace $T/none.json", "", 1, "none.json: cannot be written: File"},
       {"test -e $T/none.json", "", 1},
       {convert + "--client nosuch --mermaid - | head -n 1", "sequenceDiagram\n", 0, "none meets the conditions"},
       {"head -c -9 $T/session.jsonl >$T/cut.jsonl; exec orvel-sim convert $T/cut.jsonl --trace $T/cut.json", "", 0,
        "ends within the line, which is left out"},
       {"orvel-sim replay $T/session.jsonl -- orvelctl get name", "masked-1\n"}});
  EXPECT_FALSE(json::parse(contentOf(file("cut.json"))).at("traceEvents").empty());
}

TEST_P(Recording, LongValuesAreWholeWhileARecorderRunsAndThoseFromBeforeAreTold) {
  std::string payload;  // of characters that none of the pieces in which it travels may cut
  while (payload.size() < 1'000'000) payload += "\"\u00e9\u20ac\U0001F600";
  std::ofstream(file("long")) << payload;
  const std::string send = "orvelctl event N n --payload-file $T/long";
  expectRows({{send}});
  const auto recorder = record("--unmasked --last 5");
  expectRows({{send}});
  const std::vector<json> lines = endOf(*recorder);
  EXPECT_TRUE(has(recorder->error(), "of 1 there was only the beginning")) << recorder->error();
  EXPECT_EQ(lines.at(1).at("shortened"), json({"arguments"}));
  EXPECT_EQ(lines.at(3).at("arguments").at("payload"), payload);
  expectRows({{"orvel-sim replay $T/session.jsonl -- " + send, nullptr, 0, "session.jsonl:2: was shortened"}});
}

TEST_P(Recording, AFileIsNeitherOverwrittenUnaskedNorLeftWithHalfALine) {
  for (int n = 0; n < 5; ++n) run("orvelctl device");
  const std::string record = "orvel-sim traffic --past --record $T/session.jsonl";
  const auto lines = [this] { return parseLines(contentOf(file("session.jsonl"))).size(); };
  expectRows({{"printf precious >$T/session.jsonl"},
              {record, "", 1, "session.jsonl: exists already; --force replaces it"},
              {"cat $T/session.jsonl", "precious"},
              {"ulimit -f 4; exec " + record + " --force", "", 1, "session.jsonl: cannot be written: File too large"}});
  EXPECT_GT(lines(), 2U);
  EXPECT_EQ(contentOf(file("session.jsonl")).back(), '\n');
  expectRows({{record + " --force"}});
  EXPECT_GE(lines(), 36U);
}

TEST_P(Recording, AScenarioOfARecordingIsTheDeviceThatWasRecorded) {
  std::ofstream(file("package")) << R"({"versionCode": 7, "versionName": "1.0", "uid": 1000, "metaData": {"k": 3},
      "receivers": [{"class": "R", "actions": ["A", "B"]}], "launchActivity": "L", "resources": {"17": "text"},
      "firstInstallMs": 1, "lastUpdateMs": 2})";
  order("set packages package a.b \"$(cat $T/package)\"", R"(set info '["a", "", "c", "d"]')",
        R"(set features '["one"]')", "set package com.orvel.camera launchActivity ''", "unset setting location_mode",
        "package remove com.android.shell");
  const auto recorder = record("--unmasked");
  const auto watcher = start("orvelctl watch --count 6 name screen assistant network setting:k setting:volume_alarm",
                             "orvelctl: watching ");
  const std::string questions =
      "device; setting location_mode; pm has-feature one; pm has-feature android.hardware.wifi; pm list packages; "
      "pm list packages --uid 1000; pm version-code a.b; pm version-code no.such; pm meta-data a.b k --int; "
      "pm resource a.b 17; pm query-receivers A; pm query-receivers B; am launch a.b; am launch com.orvel.camera; "
      "am launch no.such; am foreground; event N n";
  ask(questions);
  order("set name Attic", "screen off", "maro disconnected", "network disconnected", "set setting k 7",
        "unset setting volume_alarm", "event-result TIMEOUT");
  const std::string answers = ask(questions);
  EXPECT_EQ(watcher->wait(), 0);
  const std::string places =
      "for place in name type info settings screenOn maroConnected networkConnected result resultMode "
      "'package a.b' 'package com.orvel.camera'; do orvel-sim get $place; done";
  const std::string values = outputOf(places);
  endOf(*recorder);
  const std::string convert = "orvel-sim convert $T/session.jsonl --scenario $T/scenario.json";
  expectRows({{convert}, {convert, "", 1, "exists"}});
  replace("orvel-sim run --scenario $T/scenario.json");
  EXPECT_EQ(outputOf(places), values);
  EXPECT_EQ(ask(questions), answers);
}

// Recordings by hand.
class Replaying : public NoDevice {
 protected:
  void expectReplay(const std::string& lines, const std::string& script, const char* output,
                    const std::vector<std::string>& errors = {}, const std::string& options = "") const {
    std::ofstream(file("hand.jsonl")) << lines;
    const Result result = run("orvel-sim replay $T/hand.jsonl " + options + " -- sh -c '" + script + "'");
    EXPECT_EQ(result.output, output) << result.error;
    for (const std::string& error : errors) EXPECT_TRUE(has(result.error, error)) << result.error;
  }
};

const std::string kHeader = R"({"format":"orvel-recording","version":1,"masked":false})"
                            "\n";

// Of process 7, at the given millisecond.
std::string line(int timeMs, const std::string& rest) {
  static int s_number = 0;
  return R"({"timeMs":)" + std::to_string(timeMs) + R"(,"pid":7,"servicePid":9,"number":)" +
         std::to_string(++s_number) + "," + rest + "}\n";
}
std::string setting(const std::string& key, const std::string& outcome) {
  return line(0, R"("service":"delegate","method":"getSecureSetting","code":15,"arguments":{"key":")" + key + R"("},)" +
                     outcome);
}

TEST_F(Replaying, EqualRequestsGetTheirAnswersInOrderAndFailuresToo) {
  const std::string lines = kHeader + setting("k", R"("reply":"1")") + "{\"gap\":{\"after\":1,\"entries\":3}}\n" +
                            setting("other", R"("reply":"5")") + setting("k", R"("reply":"2")") +
                            setting("bad", R"("exception":{"code":-9,"message":"as then","trace":"at x"})") +
                            setting("error", R"("error":-121)") + setting("cut", R"("reply":"12345","truncatedTo":4)") +
                            setting("null", R"("reply":null)") + setting("hang", R"("hangs":true,"durationMs":5)") +
                            setting("drop", R"("drops":true)") + setting("drop", R"("reply":"4")");
  const std::string thrice = "for i in 1 2 3; do orvelctl setting k; done";
  expectReplay(lines, thrice, "1\n2\n2\n", {"hand.jsonl:3: 3 entries are missing\n"});
  expectReplay(lines, thrice, "1\n2\n1\n", {}, "--loop");
  expectReplay(
      lines, "for k in bad error cut null; do orvelctl --log-level error setting $k --default 3; echo $?; done",
      "1\n1\n1\n3\n0\n", {"Received error: -9 [as then]", "Stack Trace: at x", "error -121", "setting cut: cut reply"});
  expectReplay(lines,
               "orvelctl setting x; echo $?; orvelctl setting drop; echo $?; orvelctl setting drop; "
               "orvelctl --timeout 0.3 setting hang; echo $?",
               "1\n5\n4\n4\n", {"not in the recording: delegate.getSecureSetting(key: \"x\")", "setting drop: died"});
}

TEST_F(Replaying, ResultsComeBeforeOrAfterTheReplyAndWithTimingAsLateAsTheyDid) {
  const std::string event =
      line(5, R"("service":"events","method":"sendEvent","code":2,"arguments":{"metadata":{"namespace":"N","name":"n",)"
              R"("event3":null,"event4":null,"event5":null,"event6":null,"event7":null,"flag":false},"payload":null,)"
              R"("callback":"endpoint of process 7"},"endpoints":[3],"reply":1,"durationMs":0.1)");
  const std::string result = R"("service":"events","notification":"eventResult","code":1,"endpoint":3,"arguments":)";
  const std::string send = "orvelctl event N n --timeout 20";
  expectReplay(kHeader + line(5, result + R"({"code":1})") + event, send, "SUCCESS_NO_CONTENT\n");
  const std::string late = kHeader + event + line(205, result + R"({"code":4})");
  expectReplay(late, send, "TIMEOUT, may be tried again\n");
  const auto start = std::chrono::steady_clock::now();
  expectReplay(late, send, "TIMEOUT, may be tried again\n", {}, "--timing");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST_F(Replaying, ADamagedOrForeignFileIsRefusedWithTheLineAndWhatIsWrong) {
  const std::string whole = setting("k", R"("reply":"1")");
  const std::string told = R"("service":"delegate","notification":"broadcast","code":1,)";
  const std::pair<std::string, const char*> rows[] = {
      {"", "hand.jsonl:1: not a recording: the file is empty"},
      {R"({"format":"orvel-recording","version":2,"masked":false})",
       ":1: a recording of version 2; this program knows"},
      {kHeader + whole + whole.substr(0, 40), "hand.jsonl:3: not JSON: it ends in the middle, at line 1, column 41"},
      {kHeader + setting("k", R"("reply":7)"), ":2: /reply: expected a string, not 7"},
      {kHeader + setting("k", R"("repl":"7")"), ":2: expected one of reply, exception"},
      {kHeader + line(0, told + R"("endpoint":1,"arguments":{"action":"a","extras":[{"key":"k","type":"shoe"}]})"),
       ":2: /arguments: no extra is of the type \"shoe\""},
      {kHeader + line(0, told + R"("arguments":{"action":"a"})"), ":2: key 'endpoint' not found"},
  };
  expectRows({{"orvel-sim replay $T/absent.jsonl", "", 2, "absent.jsonl: cannot be read"},
              {"orvel-sim replay $T", "", 2, ": cannot be read"}});
  for (const auto& [lines, error] : rows) {
    std::ofstream(file("hand.jsonl")) << lines;
    expectRows({{"orvel-sim replay $T/hand.jsonl", "", 2, error},
                {"orvel-sim convert $T/hand.jsonl --seeds $T/seeds; echo $?; test -e $T/seeds", "2\n", 1, error}});
  }
}

TEST_F(Replaying, SeedsAreTheWholeMessagesThatWereSentEachOnce) {
  std::ofstream(file("hand.jsonl"))
      << kHeader + setting("k", R"("reply":"hi")") + setting("cut", R"("reply":"hi","truncatedTo":8)") +
             setting("again", R"("reply":"hi")") +
             line(0, R"("service":"connectivity","notification":"networkLost","code":6,"endpoint":1,"arguments":{})") +
             line(0, R"("service":"coordinator","notification":"directive","code":1,)"
                     R"("arguments":{"namespace":"N","texts":["a",null]})");
  expectRows({{"orvel-sim convert $T/hand.jsonl --seeds $T/seeds", "4 seeds\n"}});
  const std::string dump = "od -An -v -w64 -t x1 $T/seeds/";
  expectRows({{dump + "delegate.getSecureSetting.0", " 00 00 00 00 02 00 00 00 68 00 69 00 00 00 00 00\n"},
              {dump + "delegate.getSecureSetting.1", " 00 00 00 00 02 00 00 00\n"},
              {dump + "connectivity.networkLost.0 -N12", " 00 00 00 00 ff ff ff ff 54 53 59 53\n"},
              {dump + "coordinator.directive.0 -N12", " 01 00 00 00 61 00 00 00 ff ff ff ff\n"}});
}

}  // namespace
}  // namespace orvel::e2e
