#include "tools/orvel-sim/verbs/AssistantVerbs.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "device/Acts.h"
#include "device/EventResults.h"
#include "device/Scenario.h"
#include "device/Service.h"
#include "device/Traffic.h"
#include "tools/cli/Options.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/Reading.h"

namespace orvel::sim {
namespace {

Json resultInForce() {
  Json fields = inForce({"events"});
  for (const char* life : {kFaults, kAlive, kFlap}) fields.erase(life);
  return fields;
}

// As the verb takes it: "TIMEOUT --delay 500".
std::string resultInWords(const Json& fields) {
  const auto result = fields.at("result").get<std::size_t>();
  const std::string mode = fields.at("resultMode");
  std::string words = result < kEventResults.size() ? kEventResults[result] : fields.at("result").dump();
  if (fields.at("resultDelayMs") != 0) words += " --delay " + fields.at("resultDelayMs").dump();
  if (fields.at("reply") != 1) words += " --reply " + fields.at("reply").dump();
  if (mode != "after") words += " --" + mode;
  return words;
}

constexpr std::size_t kDirectiveTexts = 7;

void sendDirective(std::vector<std::string> words) {
  const std::string nspace = words.front();
  if (nspace.empty()) throw ScenarioError("directive: the namespace is empty");
  words.erase(words.begin());
  if (words.size() > kDirectiveTexts) {
    throw ScenarioError("a directive has seven texts; '" + words[kDirectiveTexts] + "' is one too many");
  }
  words.resize(kDirectiveTexts);
  const Json answer = sendEvent("coordinator", {{"namespace", nspace}, {"texts", words}});
  printDone({{"pid", answer.at("pid")}}, "sent to process " + answer.at("pid").dump());
}

// "key=12", "key="text"", and of what the service finds itself the key alone.
std::string describeField(const Json& field) {
  const std::string quoted = field.at("key").dump();
  const std::string key = quoted.substr(1, quoted.size() - 2);
  return field.at("type") == "predefined" ? key : key + "=" + field.at("value").dump();
}

// "12:30:01.250  "header1" "header2"  key=12 _Model"
std::string describeMetric(const Json& event) {
  std::string line =
      clockTime(event.at("timeMs")) + "  " + event.at("header1").dump() + " " + event.at("header2").dump();
  const Json& fields = event.at("fields");
  if (fields.is_string()) return line + "  " + fields.get<std::string>();  // the beginning of too much to be kept
  const char* separator = "  ";
  for (const Json& field : fields) {
    line += separator + describeField(field);
    separator = " ";
  }
  return line;
}

void showMetrics(std::uint64_t last, bool json) {
  const auto ask = [](std::uint64_t after) { return sendEvent("metrics", {{"after", after}}); };
  const auto newest = ask(UINT64_MAX).at("newest").get<std::uint64_t>();
  for (std::uint64_t seen = newest - std::min(newest, last); seen < newest;) {
    const Json answer = ask(seen);
    if (answer.at("events").empty()) return;  // the service was restarted meanwhile
    for (const Json& event : answer.at("events")) {
      print(json ? cli::jsonText(event) : describeMetric(event));
      seen = event.at("number");
    }
  }
}

}  // namespace

void addEventResultVerb(CLI::App& app) {
  struct Words {
    std::string code;
    Json values = Json::object();  // those that are given
  };
  const auto words = std::make_shared<Words>();
  CLI::App* verb = app.add_subcommand("event-result", "Say what the following events of clients result in, and how");
  verb->add_option("result", words->code,
                   "SUCCESS, SUCCESS_NO_CONTENT, MARO_DISCONNECTED, INTERNAL_ERROR, TIMEOUT, INVALID_EVENT, "
                   "UNKNOWN_ERROR or any other number")
      ->type_name("CODE|NAME");
  const auto addNumber = [&](const char* option, const char* field, const char* about) {
    return verb
        ->add_option_function<std::int32_t>(
            option, [words, field](std::int32_t value) { words->values[field] = value; }, about)
        ->type_name("NUMBER");
  };
  CLI::Option* delay = addNumber("--delay", "resultDelayMs", "so many milliseconds after the reply");
  addNumber("--reply", "reply", "what the sending of an event answers; anything but 1 refuses it");
  std::vector<CLI::Option*> modes;
  const auto addMode = [&](const std::string& mode, const char* about) {
    const auto choose = [words, mode] { words->values["resultMode"] = mode; };
    CLI::Option* option = verb->add_flag_callback("--" + mode, choose, about);
    for (CLI::Option* other : modes) option->excludes(other);
    modes.push_back(option);
  };
  addMode("before", "before the reply");
  addMode("twice", "two times");
  addMode("never", "not at all");
  addMode("malformed", "in a message that ends where the code belongs");
  delay->excludes(modes.front());
  verb->footer("What is not given is as by default again: accepted, and the result once, right after the reply.");
  addReading(*verb, {resultInForce, resultInWords}, [words] {
    if (words->code.empty()) throw ScenarioError("event-result: a CODE or a NAME is expected");
    const Json initial = defaultScenario().at("events");
    Json values;
    for (const char* field : {"reply", "resultDelayMs", "resultMode"}) {
      values[field] = words->values.value(field, initial.at(field));
    }
    values["result"] = eventResultCalled(words->code);
    sendChange(makeAct("set", "events", values));
  });
}

void addDirectiveVerb(CLI::App& app) {
  // All that follows is taken as it is, a text like -3 too.
  CLI::App* verb = app.add_subcommand(
      "directive", "Send a directive to the client that holds a namespace: directive NAMESPACE [TEXT...]");
  verb->prefix_command();
  verb->footer(
      "Up to seven texts, those that are missing empty, in the order in which they are sent. The callback of a client\n"
      "gets the third and the fourth of them exchanged.");
  verb->callback([verb] {
    if (verb->remaining().empty()) throw ScenarioError("directive: a NAMESPACE is expected");
    sendDirective(verb->remaining());
  });
}

void addMetricsVerb(CLI::App& app) {
  struct Options {
    std::uint64_t last = UINT64_MAX;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* verb = app.add_subcommand("metrics", "List the metric events that clients recorded, the oldest first");
  cli::asCount(verb->add_option("--last", options->last, "only so many, the newest"));
  verb->add_flag("--json", options->json, "one JSON object per line");
  verb->footer("The newest 1000 are kept, until the metrics service is killed.");
  verb->callback([options] { showMetrics(options->last, options->json); });
}

}  // namespace orvel::sim
