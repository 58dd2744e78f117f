// Which entries of the traffic are chosen, and what is drawn of them.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "device/Trace.h"
#include "device/TrafficFilter.h"
#include "tools/orvel-sim/verbs/Mermaid.h"
#include "tools/orvel-sim/verbs/TrafficConditions.h"
#include "tools/orvel-sim/verbs/TrafficLines.h"

namespace orvel::sim {
namespace {

Json parsed(const std::string& lines) {
  return Json::parse("[" + lines + "]");
}

TEST(Traffic, AnEntryIsChosenWhenEveryConditionIsMet) {
  const Json entries = parsed(R"(
      {"service":"delegate","method":"getDeviceName","code":33,"pid":7,"client":"ctl","reply":"x","durationMs":5},
      {"service":"delegate","method":"getCOR","code":10,"pid":8,"client":"ctl","error":-32,"durationMs":0.5,
       "faults":[{"method":"*","fault":"error"}]},
      {"service":"power","method":null,"code":99,"pid":9,"client":"bar","exception":{"code":-7,"message":""},
       "durationMs":5.5},
      {"service":"delegate","notification":"settingChanged","code":1,"pid":9,"client":"bar","error":-105},
      {"service":"events","method":"sendEvent","code":2,"pid":9,"reply":1,
       "faults":[{"method":"*","fault":"delayMs"}]})");
  const struct {
    TrafficConditions wanted;
    std::set<std::size_t> chosen;
  } rows[] = {
      {{}, {0, 1, 2, 3, 4}},
      {{{"delegate"}, {}, {}}, {0, 1, 3}},
      {{{"getCOR", "power.99"}, {}, {}}, {1, 2}},
      {{{"delegate.setting*"}, {}, {}}, {3}},
      {{{"delegate"}, {"getDeviceName"}, {}}, {1, 3}},
      {{{}, {}, {"ctl", "9"}}, {0, 1, 2, 3, 4}},
      {{{}, {}, {"8"}}, {1}},
      {{{}, {}, {"bar"}, true}, {2, 3}},
      {{{}, {}, {}, false, true}, {1, 4}},
      {{{}, {}, {}, true, true}, {1}},
      {{{}, {}, {}, false, false, 5.0}, {2}},
      {{{"delegate"}, {}, {}, false, false, 0.1}, {0, 1}},
  };
  for (const auto& row : rows) {
    std::set<std::size_t> chosen;
    const TrafficFilter filter = filterOf(row.wanted);
    for (std::size_t at = 0; at < entries.size(); ++at) {
      if (filter.matches(entries[at])) chosen.insert(at);
    }
    EXPECT_EQ(chosen, row.chosen) << "row " << &row - rows;
  }
}

TEST(Traffic, ANameThatNothingHasIsRefusedWithTheOneThatMayBeMeant) {
  const std::pair<const char*, const char*> rows[] = {
      {"getDevicename", "; did you mean getDeviceName?"},
      {"delegte.getCOR", "; did you mean delegate.getCOR?"},
      {"delegate.getCORE", "; did you mean getCOR?"},
      {"power.getDeviceName", "power has nothing that is called 'getDeviceName'"},
      {"nosuch", "the services are delegate, power"},
      {"*nosuch*", "is called '*nosuch*'"},
      {"", "is called ''"}};
  for (const auto& [name, error] : rows) {
    for (const TrafficConditions& wanted : {TrafficConditions{{name}, {}, {}}, TrafficConditions{{}, {name}, {}}}) {
      try {
        filterOf(wanted);
        ADD_FAILURE() << name;
      } catch (const ScenarioError& refused) {
        EXPECT_NE(std::string(refused.what()).find(error), std::string::npos) << refused.what();
      }
    }
  }
}

// Of two clients and a service that is killed, as a recording has it.
// The first client asks again before it was answered; the second is never answered.
const char kRecorded[] = R"(
    {"timeMs":1000,"timeUs":1000500,"service":"delegate","method":"getCOR","code":10,"pid":7,"client":"c;#<b>%%",
     "thread":7,"servicePid":50,"arguments":{},"reply":"a\\;\u001b\u009b","durationMs":0.1,"number":1},
    {"timeMs":1000,"timeUs":1000600,"service":"delegate","method":"getDeviceName","code":33,"pid":7,"client":"c",
     "thread":7,"servicePid":50,"arguments":{},"error":-32,"durationMs":0.5,"number":2,
     "faults":[{"method":"*","fault":"delayMs"}]},
    {"gap":{"after":2,"entries":1300}},
    {"gap":{"after":1302,"entries":0},
     "life":{"service":"power","alive":false,"pid":51,"timeMs":1002,"timeUs":1002000}},
    {"timeMs":1003,"service":"delegate","method":"getCOR","code":10,"pid":8,"servicePid":50,"arguments":"shortened",
     "shortened":["arguments"],"hangs":true,"number":1303},
    {"timeMs":1009,"timeUs":1009000,"service":"delegate","notification":"settingChanged","code":1,"pid":7,"client":"c",
     "servicePid":50,"endpoint":1,"arguments":{"key":"k","value":"v"},"error":-105,"number":1304})";

// What the format asks of events: https://ui.perfetto.dev drops or misdraws others without a word.
class TraceReader {
 public:
  explicit TraceReader(const Json& trace) {
    for (const Json& event : trace.at("traceEvents")) read(event);
    for (const auto& [id, kinds] : m_flows) EXPECT_EQ(kinds, "stf") << "flow " << id;
    for (const auto& [track, slices] : m_slices) {
      EXPECT_EQ(m_names.count(track), 1U) << "a thread without a name";
      for (const auto& [start, end] : slices) {
        for (const auto& [other, otherEnd] : slices) {
          EXPECT_FALSE(other < start && start < otherEnd && otherEnd < end) << "slices that cross at " << start;
        }
      }
    }
  }

  std::vector<std::string> of(const std::string& kind) const {
    const auto found = m_shown.find(kind);
    return found == m_shown.end() ? std::vector<std::string>() : found->second;
  }

 private:
  using Track = std::pair<int, int>;

  void read(const Json& event) {
    const std::string kind = event.at("ph");
    const Track track = {event.at("pid"), event.at("tid")};
    const std::string name = event.at("name");
    std::string shown = std::to_string(track.first) + "/" + std::to_string(track.second) + " " + name;
    if (kind == "M") {
      shown += " " + event.at("args").at("name").get<std::string>();
      const bool isNew = name != "thread_name" || m_names.insert(track).second;
      EXPECT_TRUE(isNew) << "a thread with two names";
    } else {
      EXPECT_GE(event.at("ts"), 0);
      shown += " " + event.at("ts").dump();
    }
    if (kind == "X") {
      EXPECT_GT(event.at("dur"), 0);
      m_slices[track].emplace_back(event.at("ts"), event.at("ts").get<double>() + event.at("dur").get<double>());
      shown += "+" + event.at("dur").dump();
    } else if (kind == "s" || kind == "t" || kind == "f") {
      m_flows[event.at("id")] += kind;
      bool bound = false;
      for (const auto& [start, end] : m_slices[track]) bound |= start <= event.at("ts") && event.at("ts") < end;
      EXPECT_TRUE(bound) << "a flow that begins or ends outside of every slice: " << event;
    } else if (kind == "i") {
      EXPECT_TRUE(event.at("s") == "t" || event.at("s") == "p" || event.at("s") == "g");
    } else if (kind == "C") {
      for (const Json& value : event.at("args")) EXPECT_TRUE(value.is_number());
      shown += " " + event.at("args").dump();
    } else {
      EXPECT_EQ(kind, "M");
    }
    m_shown[kind].push_back(shown);
  }

  std::map<std::string, std::vector<std::string>> m_shown;
  std::map<Track, std::vector<std::pair<double, double>>> m_slices;
  std::map<int, std::string> m_flows;
  std::set<Track> m_names;
};

TEST(Traffic, ATraceKeepsTheFormatAndShowsEachCallWithItsClientAndItsService) {
  const TraceReader reader(Json::parse(traceOf(parsed(kRecorded).get<std::vector<Json>>())));
  using Shown = std::vector<std::string>;
  // In microseconds from the first beginning; what is never answered lasts until the end.
  EXPECT_EQ(reader.of("X"), Shown({"7/1 delegate.getDeviceName 0+500", "50/1 delegate.getDeviceName 0+500",
                                   "7/2 delegate.getCOR 300+100", "50/1 delegate.getCOR 300+100",
                                   "8/1 delegate.getCOR 2900+6000", "50/1 delegate.getCOR 2900+6000"}));
  EXPECT_EQ(reader.of("i"), Shown({"50/1 delay on * 0", "50/0 1,300 entries missing 1900", "51/1 power died 1900",
                                   "7/3 delegate -> settingChanged 8900"}));
  EXPECT_EQ(
      reader.of("M"),
      Shown({"7/0 process_name c", "8/0 process_name client", "50/0 process_name delegate", "51/0 process_name power",
             "7/1 thread_name main thread", "50/1 thread_name delegate", "7/2 thread_name main thread (2)",
             "51/1 thread_name power", "8/1 thread_name calls", "7/3 thread_name notifications"}));
  EXPECT_EQ(reader.of("C").size(), 4U);
  EXPECT_TRUE(TraceReader(Json::parse(traceOf({}))).of("X").empty());
  EXPECT_EQ(TraceReader(Json::parse(traceOf({parsed(kRecorded).at(2)}))).of("i"),
            Shown({"0/0 1,300 entries missing 0"}));
}

TEST(Traffic, ADiagramHasNoCharacterThatEndsAStatementOrIsHtml) {
  EXPECT_EQ(mermaidOf(parsed(kRecorded).get<std::vector<Json>>()), R"(sequenceDiagram
    participant p7 as c#59;#35;#60;b#62;#37;#37; 7
    participant p8 as process 8
    participant delegate
    participant power
    p7->>delegate: getDeviceName()
    p7->>delegate: getCOR()
    delegate-->>p7: "a#92;#92;#59;#92;u001b#92;u009b" (0.1 ms)
    delegate--xp7: fails with EPIPE (Broken pipe), by delay on * (0.5 ms)
    Note over p7,power: 1,300 entries missing
    Note over power: died
    p8->>delegate: getCOR(shortened)
    Note over delegate: getCOR hangs
    delegate-xp7: settingChanged(key: "k", value: "v") fails with ENOBUFS (No buffer space available)
)");
}

TEST(Traffic, ALineShowsTheReasonOfAFailureHoweverNarrowItIsAndNoControlCharacter) {
  const Json entries = parsed(kRecorded);
  Json failing = entries.at(1);
  failing["arguments"] = {{"long", std::string(100, 'x')}, {"control", "\x1b[31m\xc2\x9b\xe2\x80\xae"}};
  setenv("COLUMNS", "130", 1);
  const std::string line = TrafficLines(TrafficLines::Form::kLine).write(failing).substr(12);  // behind the time
  EXPECT_EQ(line,
            "    0.500 ms  c 7               delegate.getDeviceName(long: \"xxxxxxxxx… fails "
            "with EPIPE (Broken pipe), "
            "by delay on *");
  unsetenv("COLUMNS");
  const std::string full = TrafficLines(TrafficLines::Form::kFull).write(failing);
  for (const char* part : {"\n        \"control\": \"\\u001b[31m\\u009b\\u202e\"\n", "\n      \"error\": -32\n"}) {
    EXPECT_NE(full.find(part), std::string::npos) << full;
  }
  EXPECT_EQ(TrafficLines(TrafficLines::Form::kLine).write(entries.at(2)), "… 1,300 entries missing");
}

TEST(Traffic, TheNewestThatAreAskedForKeepTheGapsBetweenThem) {
  const auto kept = [](std::uint64_t most, bool beginning) {
    Newest newest(most, beginning);
    for (const char* line : {R"({"gap":1})", R"({"n":1})", R"({"gap":2})", R"({"n":2})", R"({"gap":3})"}) {
      newest.add(Json::parse(line));
    }
    std::string text;
    for (const Json& line : newest.take()) text += line.dump();
    return text;
  };
  EXPECT_EQ(kept(9, true), R"({"gap":1}{"n":1}{"gap":2}{"n":2}{"gap":3})");
  EXPECT_EQ(kept(2, false), R"({"n":1}{"gap":2}{"n":2}{"gap":3})");
  EXPECT_EQ(kept(1, true), R"({"n":2}{"gap":3})");
}

}  // namespace
}  // namespace orvel::sim
