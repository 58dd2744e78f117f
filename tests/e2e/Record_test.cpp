// Recordings: what is written, what is kept to oneself, and what a device that is made of one says.
#include <signal.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "Device.h"

namespace orvel::e2e {
namespace {

using nlohmann::json;

std::string contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// Each is as long as the milliseconds since 1970 will be for centuries.
std::string withoutTimes(std::string lines) {
  const std::string key = "\"timeMs\":";
  for (std::size_t at = 0; (at = lines.find(key)) != std::string::npos;) lines.erase(at, key.size() + 14);
  return lines;
}

class Recording : public Device {
 protected:
  std::string file() const { return temporary() / "session.jsonl"; }

  std::unique_ptr<Process> record(const Words& more = {}) const {
    auto recorder = start(Words{"orvel-sim", "traffic", "--record", file()} + more);
    recorder->waitForError("orvel-sim: recording into ");
    return recorder;
  }

  std::vector<json> endOf(Process& recorder) const {
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.error();
    return parseLines(contentOf(file()));
  }

  // In the place of the device.
  void serve(const Words& words) {
    m_device->signal(SIGINT);
    m_device->wait();
    m_device = start(Words{"orvel-sim"} + words);
    m_device->waitForOutput("serving in ");
  }

  // All that a client can ask and be told, as one text. What happens on the device is up to `happens`.
  template <typename Happens>
  std::string session(const Happens& happens) const {
    std::string all;
    const auto add = [&](const Result& result) { all += std::to_string(result.status) + "\n" + result.output; };
    const auto finish = [&](Process& process) {
      const int status = process.wait();
      add({status, withoutTimes(process.output()), {}});
    };
    for (const Words& words : std::vector<Words>{
             {"device"},
             {"setting", "volume_alarm"},
             {"setting", "unset", "--default", "9"},
             {"wake-lock", "partial"},
             {"wake-lock", "full"},
             {"am", "broadcast", "-a", "X", "--es", "k", "v", "--el", "l", "7", "-c", "C", "-f", "0x10000000"},
             {"am", "broadcast", "-a", "X", "--receiver-permission", "P"},
             {"am", "broadcast-int", "X", "a.b/.C", "k", "5"},
             {"am", "start", "-n", "com.orvel.camera/.CameraActivity"},
             {"am", "start-service", "-n", "com.orvel.alarms/.Service"},
             {"am", "start-foreground-service", "-n", "com.orvel.alarms/.Service"},
             {"am", "foreground"},
             {"am", "process-state", "com.orvel.camera"},
             {"am", "launch", "com.orvel.camera"},
             {"pm", "list", "packages"},
             {"pm", "list", "packages", "--uid", "1000"},
             {"pm", "version-code", "com.orvel.camera"},
             {"pm", "version-name", "no.such.package"},
             {"pm", "meta-data", "com.orvel.camera", "com.orvel.camera.maximumSeconds", "--int"},
             {"pm", "resource", "com.orvel.camera", "1"},
             {"pm", "has-feature", "android.hardware.camera"},
             {"pm", "query-receivers", "android.intent.action.BOOT_COMPLETED"},
             {"event", "Speaker", "Volume", "a", "b", "--payload", "7"},
             {"metric", "player", "start", "--long", "ms", "120", "--double", "d", "0.1", "--string", "s", "t"},
         }) {
      add(run(Words{"orvelctl"} + words));
    }
    const auto client = start({"orvel-e2e-client"});
    client->write(
        "call com.quarlo.client.metrics.tarsel 3 ii 0 -1 1398362964 'com.quarlo.orveldelegate.services.ITarselMetric");
    all += client->waitForOutput("reply ") + "\n";
    // What comes from two services has no order.
    const auto watcher = start({"orvelctl", "watch", "--json", "--count", "3", "name", "screen", "setting:k"});
    const auto network = start({"orvelctl", "watch", "--json", "--count", "1", "network"});
    network->waitForError("orvelctl: watching ");
    watcher->waitForError("orvelctl: watching ");
    const auto holder = start({"orvelctl", "directive", "--json", "--count", "2", "Alerts"});
    holder->waitForError("orvelctl: watching ");
    happens();
    finish(*watcher);
    finish(*network);
    finish(*holder);
    return all;
  }
};

TEST_P(Recording, ASessionOfEveryMethodIsReplayedByteForByte) {
  const auto recorder = record({"--unmasked"});
  const std::string asked = session([&] {
    for (const Words& words : std::vector<Words>{{"set", "name", "Hall"},
                                                 {"set", "setting", "k", "7"},
                                                 {"screen", "off"},
                                                 {"network", "disconnected"},
                                                 {"directive", "Alerts", "a", "b", "c"},
                                                 {"directive", "Alerts", "é\"\\"}}) {
      order(words);
    }
  });
  const std::vector<json> lines = endOf(*recorder);
  std::set<std::string> used;
  for (const json& line : lines) {
    if (line.contains("method"))
      used.insert(line["service"].get<std::string>() + std::to_string(line["code"].get<int>()));
  }
  // Of the delegate service, power, metrics and connectivity; one each of activity, packages and events.
  EXPECT_EQ(used.size(), 21U + 4 + 2 + 2 + 3);

  serve({"replay", file()});
  EXPECT_EQ(session([] {}), asked);
}

TEST_P(Recording, WhatIdentifiesTheOwnerIsNowhereAndTheReplayStillFits) {
  order({"set", "name", "Annas Kitchen"});
  order({"set", "serialNumber", "SN-original"});
  order({"set", "customerId", "account-original"});
  order({"set", "info", R"(["info-original", "alder"])"});
  order({"set", "setting", "text", "setting-original"});
  order({"set", "setting", "number", "128"});
  const auto recorder = record();
  const auto watcher = start({"orvelctl", "watch", "--json", "--count", "3", "name", "setting:k", "package"});
  watcher->waitForError("orvelctl: watching ");
  const std::vector<Words> questions = {
      {"get", "serial-number"},
      {"get", "customer-id"},
      {"setting", "number"},
      {"am", "broadcast", "-a", "X", "-d", "content:data-original", "--es", "k", "extra-original"},
      {"am", "start", "-a", "View", "-d", "content:data-original", "--es", "k", "intent-original"},
      {"event", "Speaker", "Say", "event-original", "--payload", "payload-original"},
      {"event", "Speaker", "Say", "event-original", "--payload", "payload-second-original"},
      {"metric", "a", "b", "--string", "k", "metric-original"}};
  std::vector<int> statuses;
  for (const Words& words : questions) statuses.push_back(run(Words{"orvelctl"} + words).status);
  run({"orvelctl", "setting", "text"});
  run({"orvelctl", "get", "type"});
  run({"orvelctl", "get", "name"});
  run({"orvelctl", "pm", "has-feature", "of Annas Kitchen"});
  const auto holder = start({"orvelctl", "directive", "--count", "1", "Alerts"});
  holder->waitForError("orvelctl: watching ");
  order({"directive", "Alerts", "directive-original"});
  order({"set", "name", "Second-original"});
  order({"set", "setting", "k", "7"});
  order({"package", "added", "a.b"});
  holder->wait();
  watcher->wait();
  const std::vector<json> lines = endOf(*recorder);

  const std::string text = contentOf(file());
  for (const char* original : {"original", "Annas Kitchen", "alder"}) {
    EXPECT_EQ(text.find(original), std::string::npos) << original;
  }
  EXPECT_EQ(text.find("masked-\""), std::string::npos);
  for (const char* kept : {"QDT-DISPLAY-8", "package:a.b", "\"content:masked-", "\"of masked-", "\"reply\":\"128\""}) {
    EXPECT_NE(text.find(kept), std::string::npos) << kept;
  }
  std::set<std::string> payloads;
  for (const json& line : lines) {
    if (line.value("method", json()) == "sendEvent") payloads.insert(line["arguments"]["payload"].get<std::string>());
  }
  EXPECT_EQ(payloads.size(), 2U) << "two values had one mask, or one had two";

  serve({"replay", file()});
  for (std::size_t i = 0; i < questions.size(); ++i) {
    const Result answer = run(Words{"orvelctl"} + questions[i]);
    EXPECT_EQ(answer.status, statuses[i]) << questions[i][1] << answer.error;
  }
  EXPECT_EQ(run({"orvelctl", "setting", "number"}).output, "128\n");
  EXPECT_EQ(run({"orvelctl", "get", "name"}).output.rfind("masked-", 0), 0U);
  EXPECT_NE(run({"orvelctl", "event", "Speaker", "Say", "event-original", "--payload", "another"}).status, 0)
      << "a mask stood for a second text";
}

TEST_P(Recording, ARecorderThatSleepsThroughThousandsOfEntriesLosesNone) {
  const auto recorder = record();
  Words words = {"orvelctl", "watch", "--count", "1500"};
  words.resize(154, "package");
  const auto watcher = start(words);
  watcher->waitForError("orvelctl: watching ");
  recorder->signal(SIGSTOP);
  for (int n = 0; n < 10; ++n) order({"package", "added", "a.b"});
  watcher->wait();
  run({"orvelctl", "get", "name"});  // behind which all of that is in the traffic, whoever's process it comes from
  recorder->signal(SIGCONT);
  const std::vector<json> lines = endOf(*recorder);
  std::size_t notifications = 0;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].at("number"), i);
    notifications += lines[i].contains("notification");
  }
  EXPECT_EQ(notifications, 1500U);
}

TEST_P(Recording, LongValuesAreWholeOnceSomebodyRecordsAndThoseFromBeforeAreTold) {
  const std::string payload(700'000, '"');  // two bytes each in JSON, four in a message
  std::ofstream(temporary() / "long") << payload;
  const Words send = {"orvelctl", "event", "N", "n", "--payload-file", temporary() / "long"};
  run(send);
  const auto recorder = record({"--unmasked", "--last", "5"});
  EXPECT_EQ(run(send).status, 0);
  const std::vector<json> lines = endOf(*recorder);
  EXPECT_NE(recorder->error().find("of 1 there was only the beginning"), std::string::npos) << recorder->error();
  EXPECT_EQ(lines.at(1).at("shortened"), json({"arguments"}));
  EXPECT_EQ(lines.at(3).at("arguments").at("payload"), payload);
  Words sendAgain = send;
  sendAgain.front() = ORVEL_BIN "/orvelctl";  // which is not in PATH
  const Result replayed = run(Words{"orvel-sim", "replay", file(), "--"} + sendAgain);
  EXPECT_EQ(replayed.status, 0);
  EXPECT_NE(replayed.error.find("session.jsonl:2: was shortened"), std::string::npos) << replayed.error;
}

TEST_P(Recording, AFileIsNeitherOverwrittenUnaskedNorLeftWithHalfALine) {
  for (int n = 0; n < 5; ++n) run({"orvelctl", "device"});
  std::ofstream(file()) << "precious";
  const Words words = {"orvel-sim", "traffic", "--past", "--record", file()};
  const Result refused = run(words);
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.error.find("session.jsonl: exists already; --force replaces it"), std::string::npos);
  EXPECT_EQ(contentOf(file()), "precious");

  const Result full =
      run({"/bin/sh", "-c", "ulimit -f 4; exec " ORVEL_BIN "/orvel-sim traffic --past --force --record " + file()});
  EXPECT_EQ(full.status, 1);
  EXPECT_NE(full.error.find("session.jsonl: cannot be written: File too large"), std::string::npos) << full.error;
  EXPECT_GT(parseLines(contentOf(file())).size(), 2U);
  EXPECT_EQ(contentOf(file()).back(), '\n');

  EXPECT_EQ(run(words + Words{"--force"}).status, 0);
  EXPECT_GE(parseLines(contentOf(file())).size(), 36U);
}

TEST_P(Recording, AScenarioOfARecordingAnswersTheSame) {
  order({"set", "delegate", "name", "Attic"});
  order({"set", "settings", "volume_alarm", "3"});
  order({"set", "info", R"(["a", "", "c", "d"])"});
  order({"set", "features", R"(["one", "two"])"});
  order({"set", "metrics", "interfaceVersion", "5"});
  order({"package", "remove", "com.android.shell"});
  order({"package", "install", "com.example.app", "--version-code", "7", "--uid", "1000"});
  order({"set", "package", "com.example.app", "resources", "17", "text"});
  order({"screen", "off"});
  const std::vector<Words> questions = {{"device"},
                                        {"setting", "volume_alarm"},
                                        {"setting", "unset"},
                                        {"pm", "has-feature", "two"},
                                        {"pm", "has-feature", "android.hardware.wifi"},
                                        {"pm", "list", "packages"},
                                        {"pm", "list", "packages", "--uid", "1000"},
                                        {"pm", "version-code", "com.example.app"},
                                        {"pm", "version-code", "com.android.shell"},
                                        {"pm", "resource", "com.example.app", "17"},
                                        {"pm", "query-receivers", "android.intent.action.BOOT_COMPLETED"},
                                        {"am", "foreground"},
                                        {"event", "N", "n"}};
  const auto ask = [&] {
    std::string answers;
    for (const Words& words : questions) answers += run(Words{"orvelctl"} + words).output;
    return answers;
  };
  const auto recorder = record({"--unmasked"});
  const std::string answers = ask();
  endOf(*recorder);
  const std::string scenario = temporary() / "scenario.json";
  ASSERT_EQ(run({"orvel-sim", "convert", file(), "--scenario", scenario}).status, 0);
  EXPECT_EQ(run({"orvel-sim", "convert", file(), "--scenario", scenario}).status, 1) << "it exists";
  serve({"run", "--scenario", scenario});
  EXPECT_EQ(ask(), answers);
}

INSTANTIATE_TEST_SUITE_P(, Recording, ::testing::Values(false, true),
                         [](const auto& mode) { return mode.param ? "Isolated" : "InOneProcess"; });

// Recordings by hand.
class Replaying : public NoDevice {
 protected:
  std::string write(const std::string& lines) const {
    const std::string file = temporary() / "hand.jsonl";
    std::ofstream(file) << lines;
    return file;
  }

  Result replay(const std::string& lines, const std::string& script, const Words& options = {}) const {
    return run(Words{"orvel-sim", "replay", write(lines)} + options +
               Words{"--", "/bin/sh", "-c", "PATH=" ORVEL_BIN ":$PATH; " + script});
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
  const std::string lines = kHeader + setting("k", R"("reply":"1")") + setting("other", R"("reply":"5")") +
                            setting("k", R"("reply":"2")") +
                            setting("bad", R"("exception":{"code":-9,"message":"as then","trace":"at x"})") +
                            setting("error", R"("error":-121)") + setting("cut", R"("reply":"12345","truncatedTo":4)") +
                            setting("null", R"("reply":null)");
  const std::string thrice = "for i in 1 2 3; do orvelctl setting k; done";
  EXPECT_EQ(replay(lines, thrice).output, "1\n2\n2\n");
  EXPECT_EQ(replay(lines, thrice, {"--loop"}).output, "1\n2\n1\n");
  const Result failing =
      replay(lines, "for k in bad error cut null; do orvelctl setting $k --default 3; echo $?; done");
  EXPECT_EQ(failing.output, "1\n1\n3\n0\n3\n0\n");
  EXPECT_NE(failing.error.find("Received error: -9 [as then]"), std::string::npos) << failing.error;
  EXPECT_NE(failing.error.find("Stack Trace: at x"), std::string::npos);
  EXPECT_NE(failing.error.find("error -121"), std::string::npos);
}

TEST_F(Replaying, WhatHungHangsWhatWasDroppedIsDroppedAndWhatIsMissingIsTold) {
  const std::string lines = kHeader + setting("hang", R"("hangs":true,"durationMs":5)") +
                            "{\"gap\":{\"after\":1,\"entries\":3}}\n" + setting("drop", R"("drops":true)") +
                            setting("drop", R"("reply":"1")") + setting("good", R"("reply":"2")");
  const Result result = replay(lines,
                               "orvelctl setting drop --default 7; echo $?; orvelctl setting drop; "
                               "orvelctl --timeout 0.3 setting hang; echo $?; orvelctl setting good");
  EXPECT_EQ(result.output, "5\n1\n4\n2\n") << result.error;
  EXPECT_NE(result.error.find("hand.jsonl:3: 3 entries are missing\n"), std::string::npos) << result.error;
  EXPECT_NE(result.error.find("error -104"), std::string::npos) << result.error;
}

TEST_F(Replaying, AnUnknownRequestIsNamedInTheExceptionAndTheCommandsStatusPassedOn) {
  const Result result = replay(kHeader, "orvelctl setting x; exit 42");
  EXPECT_EQ(result.status, 42);
  EXPECT_NE(result.error.find("not in the recording: delegate.getSecureSetting(key: \"x\")"), std::string::npos)
      << result.error;
}

TEST_F(Replaying, ResultsComeBeforeOrAfterTheReplyAndWithTimingAsLateAsTheyDid) {
  const auto event = [](int timeMs) {
    return line(
        timeMs,
        R"("service":"events","method":"sendEvent","code":2,"arguments":{"metadata":{"namespace":"N","name":"n",)"
        R"("event3":null,"event4":null,"event5":null,"event6":null,"event7":null,"flag":false},"payload":null,)"
        R"("callback":"endpoint of process 7"},"endpoints":[3],"reply":1,"durationMs":0.1)");
  };
  const auto result = [](int timeMs, int code) {
    return line(timeMs,
                R"("service":"events","notification":"eventResult","code":1,"endpoint":3,"arguments":{"code":)" +
                    std::to_string(code) + "}");
  };
  const std::string send = "orvelctl event N n --timeout 20";
  EXPECT_EQ(replay(kHeader + result(5, 1) + event(5), send).output, "SUCCESS_NO_CONTENT\n");
  const std::string late = kHeader + event(5) + result(205, 4);
  EXPECT_EQ(replay(late, send).output, "TIMEOUT, may be tried again\n");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(replay(late, send, {"--timing"}).output, "TIMEOUT, may be tried again\n");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST_F(Replaying, ADamagedOrForeignFileIsRefusedWithTheLineAndWhatIsWrong) {
  const std::string whole = setting("k", R"("reply":"1")");
  const struct {
    std::string lines;
    const char* expected;
  } rows[] = {
      {"", "hand.jsonl:1: no recording: the file is empty"},
      {"hello\n", "hand.jsonl:1: parse error at line 1"},
      {"{}\n", "hand.jsonl:1: no recording: expected a header"},
      {R"({"format":"orvel-recording","version":2,"masked":false})",
       ":1: a recording of version 2; this program knows"},
      {kHeader + whole + whole.substr(0, 40), "hand.jsonl:3: parse error"},
      {kHeader + "7\n", ":2: expected an object"},
      {kHeader + line(0, R"("service":"x","method":"m","code":1,"arguments":{},"reply":1)"),
       ":2: no service is called x; there are delegate"},
      {kHeader + setting("k", R"("reply":7)"), ":2: /reply: expected a string, not 7"},
      {kHeader + setting("k", R"("repl":"7")"), ":2: expected one of reply, exception"},
      {kHeader + setting("k", R"("hangs":"long")"), ":2: /hangs: expected true"},
      {kHeader + setting("k", R"("error":5)"), ":2: /error: expected a whole number from -4095 to -1"},
      {kHeader + line(0, R"("service":"delegate","method":"getName","code":33,"arguments":{},"reply":"")"),
       ":2: delegate has no method \"getName\" with the code 33"},
      {kHeader + line(0, R"("service":"power","method":"getVersion","code":3,"arguments":{},"reply":1e300)"),
       ":2: /reply: expected a whole number of 32 bits"},
      {kHeader + line(0, R"("service":"delegate","notification":"broadcast","code":1,"endpoint":1,"arguments":)"
                         R"({"action":"a","extras":[{"key":"k","type":"shoe","value":1}]})"),
       ":2: /arguments: no extra is of the type \"shoe\""},
      {kHeader + line(0, R"("service":"delegate","notification":"broadcast","code":1,"arguments":{"action":"a"})"),
       ":2: key 'endpoint' not found"},
      {kHeader + line(0, R"("service":"coordinator","notification":"directive","code":1,"arguments":{"texts":["a"]})"),
       ":2: /arguments: key 'namespace' not found"},
  };
  for (const auto& row : rows) {
    for (const Words& verb : {Words{"replay"}, Words{"convert", "--seeds", temporary() / "seeds"}}) {
      const Result result = run(Words{"orvel-sim"} + verb + Words{write(row.lines)});
      EXPECT_EQ(result.status, 2) << row.lines;
      EXPECT_NE(result.error.find(row.expected), std::string::npos) << result.error;
    }
  }
  EXPECT_FALSE(std::filesystem::exists(temporary() / "seeds"));
  const std::string noKey =
      line(0, R"("service":"delegate","method":"getSecureSetting","code":15,"arguments":{},"reply":"1")");
  const std::string scenario = temporary() / "scenario.json";
  const Result unfit = run({"orvel-sim", "convert", write(kHeader + whole + noKey), "--scenario", scenario});
  EXPECT_EQ(unfit.status, 2);
  EXPECT_NE(unfit.error.find("hand.jsonl:3: key 'key' not found"), std::string::npos) << unfit.error;
  EXPECT_FALSE(std::filesystem::exists(scenario));
  EXPECT_EQ(run({"orvel-sim", "replay", temporary() / "none"}).status, 2);
}

TEST_F(Replaying, SeedsAreTheWholeMessagesThatWereSentEachOnce) {
  const std::string lines =
      kHeader + setting("k", R"("reply":"hi")") + setting("cut", R"("reply":"hi","truncatedTo":8)") +
      setting("again", R"("reply":"hi")") +
      line(0, R"("service":"connectivity","notification":"networkLost","code":6,"endpoint":1,"arguments":{})") +
      line(
          0,
          R"("service":"coordinator","notification":"directive","code":1,"arguments":{"namespace":"N","texts":["a",null]})");
  const std::filesystem::path seeds = temporary() / "seeds";
  EXPECT_EQ(run({"orvel-sim", "convert", write(lines), "--seeds", seeds}).output, "4 seeds\n");
  const auto bytes = [](const char* begin, std::size_t size) { return std::string(begin, size); };
  EXPECT_EQ(contentOf(seeds / "delegate.getSecureSetting.0"), bytes("\0\0\0\0\2\0\0\0h\0i\0\0\0\0\0", 16));
  EXPECT_EQ(contentOf(seeds / "delegate.getSecureSetting.1"), bytes("\0\0\0\0\2\0\0\0", 8));
  EXPECT_EQ(contentOf(seeds / "connectivity.networkLost.0").substr(0, 12), bytes("\0\0\0\0\xff\xff\xff\xffTSYS", 12));
  EXPECT_EQ(contentOf(seeds / "coordinator.directive.0").substr(0, 12), bytes("\1\0\0\0a\0\0\0\xff\xff\xff\xff", 12));
}

TEST_F(Replaying, TheDocumentListsWhatIsMasked) {
  std::istringstream help(run({"orvel-sim", "traffic", "--help"}).output);
  const std::string document = contentOf(ORVEL_RECORDINGS_DOCUMENT);
  int rows = 0;
  for (std::string text; std::getline(help, text);) {
    std::istringstream words(text);
    std::string service;
    std::string next;
    words >> service >> next;
    if (next[0] != '/') words >> next;
    if (next[0] != '/') continue;
    std::string about;
    std::getline(words >> std::ws, about);
    EXPECT_NE(document.find("`" + next + "` | " + about + " |"), std::string::npos) << text;
    ++rows;
  }
  EXPECT_GE(rows, 14);
}

}  // namespace
}  // namespace orvel::e2e
