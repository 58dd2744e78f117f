// orvelctl event, directive and metric: the voice assistant and the device's metrics.
#include <poll.h>

#include <chrono>
#include <cstddef>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Watch.h"
#include "orvel/AssistantEvent.h"
#include "orvel/CallbackQueue.h"
#include "orvel/TarselMetricEvent.h"
#include "tools/cli/Options.h"

namespace orvelctl {
namespace {

using orvel::service_apis::AssistantEvent;
using orvel::service_apis::CallbackQueue;
using orvel::service_apis::EventOutcome;
using orvel::service_apis::TarselMetricEvent;

constexpr char kEventFooter[] = R"(
What the texts, the flag and the payload mean is between the caller and the assistant; a payload ends at its first NUL.
The result is one of SUCCESS, SUCCESS_NO_CONTENT, MARO_DISCONNECTED, INTERNAL_ERROR, TIMEOUT, INVALID_EVENT,
UNKNOWN_ERROR and LOST: the service died, or let go of the event without a result. The exit status is 0 for the first
two, 5 for LOST, 4 for TIMEOUT with --deadline, and 1 for the others.)";

constexpr char kDirectiveFooter[] = R"(
One process at a time has a namespace. It keeps it until it ends, also when services die. `orvelctl watch
directive:NAMESPACE` is the same beside other kinds of changes.)";

constexpr std::size_t kMoreTexts = 5;  // of an event, behind its namespace and its name

struct EventOptions {
  AssistantEvent event;
  std::vector<std::string> texts;
  std::optional<std::string> payload_file;
  double deadline = 0;  // seconds; 0: none
};

// Waits for the outcome; nothing when the session ends first.
std::optional<EventOutcome> await(const Session& session, CallbackQueue& callbacks,
                                  const std::optional<EventOutcome>& outcome) {
  constexpr int kSilentMs = 1000;
  int patience = kSilentMs;
  while (!outcome) {
    pollfd descriptors[] = {{session.interruption(), POLLIN, 0}, {callbacks.fd(), POLLIN, 0}};
    if (poll(descriptors, std::size(descriptors), patience) == 0) {
      std::cerr << "orvelctl: waiting for the result; Ctrl-C gives up" << std::endl;
      patience = -1;
    }
    if (descriptors[0].revents != 0) return std::nullopt;
    callbacks.dispatch();
  }
  return outcome;
}

// The failure that a result other than success is.
Failure failureOfOutcome(const std::string& what, const AssistantEvent& event, const std::string& result) {
  Failure failure{kFailed, what + ": the result is " + result, what, boundName(Service::kEvents)};
  if (result == "LOST") {
    failure.exitStatus = kNotBound;
    failure.reason = "lost";
  } else if (result == "TIMEOUT" && event.deadline.count() > 0) {
    failure.exitStatus = kTimedOut;
    failure.reason = "timed-out";
  }
  return failure;
}

void addEvent(Commands& commands) {
  const auto options = std::make_shared<EventOptions>();
  AssistantEvent& event = options->event;
  CLI::App* subcommand = commands.add("event", "Send the voice assistant an event and wait for its result",
                                      [options](Session& session) { sendEvent(session, options->event); });
  addText(subcommand, "namespace", event.nspace, "");
  addText(subcommand, "name", event.name, "");
  subcommand->add_option("texts", options->texts, "up to five more texts")->type_name("");
  subcommand->add_flag("--flag", event.flag, "set the event's flag");
  CLI::Option* payload = subcommand->add_option("--payload", event.payload, "what goes along")->type_name("TEXT");
  subcommand->add_option("--payload-file", options->payload_file, "the same from a file, - for standard input")
      ->type_name("FILE")
      ->excludes(payload);
  orvel::cli::inSeconds(subcommand->add_option("--deadline", options->deadline, "wait so long for the result"));
  subcommand->footer(kEventFooter + 1);
  subcommand->parse_complete_callback([options] {
    AssistantEvent& read = options->event;
    const std::vector<std::string>& texts = options->texts;
    if (texts.size() > kMoreTexts) {
      throw CLI::ValidationError("texts", "at most five, '" + texts[kMoreTexts] + "' is one too many");
    }
    std::string* const further[] = {&read.event3, &read.event4, &read.event5, &read.event6, &read.event7};
    for (std::size_t n = 0; n < texts.size(); ++n) *further[n] = texts[n];
    read.deadline = std::chrono::duration_cast<std::chrono::nanoseconds>(Seconds(options->deadline));
    if (options->payload_file) read.payload = readFile("--payload-file", *options->payload_file);
  });
}

void addDirective(Commands& commands) {
  const auto options = std::make_shared<WatchOptions>();
  CLI::App* subcommand =
      commands.add("directive", "Print the voice assistant's directives of some namespaces, one a line, until Ctrl-C",
                   [options](Session& session) { watchChanges(session, *options); });
  const auto namespaces = std::make_shared<std::vector<std::string>>();
  subcommand->add_option("namespaces", *namespaces)
      ->required()
      ->check([](const std::string& nspace) { return nspace.empty() ? "it is empty" : ""; }, "", "")
      ->type_name("");
  addWatchOptions(subcommand, *options);
  subcommand->footer(std::string(kDirectiveFooter + 1) + "\n" + kLinesFooter);
  subcommand->parse_complete_callback([options, namespaces] {
    for (const std::string& nspace : *namespaces) options->kinds.push_back("directive:" + nspace);
  });
}

struct MetricOptions {
  TarselMetricEvent event;
  KeyedWords texts;
  KeyedWords numbers;
  KeyedWords reals;
  KeyedWords times;
  KeyedWords truths;
  std::vector<std::string> predefined;

  // Throws CLI::ValidationError.
  void readFields() {
    // The event itself would take the last of two values for a key, in an order that the user did not give.
    const auto once = [this](auto add) {
      return [this, add](const std::string& key, auto value) {
        return event.fields.count(key) == 0 && (event.*add)(key, value);
      };
    };
    putAll("--string", texts, "text", readText, once(&TarselMetricEvent::addStringEvent));
    putAll("--long", numbers, "a number of 64 bits", readNumber<long long>, once(&TarselMetricEvent::addLongEvent));
    putAll("--double", reals, "a number", readReal, once(&TarselMetricEvent::addDoubleEvent));
    putAll("--timestamp", times, "a number of 64 bits", readNumber<long long>,
           once(&TarselMetricEvent::addTimestampEvent));
    putAll("--boolean", truths, "true or false", readTruth, once(&TarselMetricEvent::addBooleanEvent));
    for (const std::string& word : predefined) {
      const TarselPredefined::Type type = readPredefined("--predefined", word);
      const bool given = event.fields.count(TarselPredefined::fromInteger(type)) != 0;
      if (given) throw CLI::ValidationError("--predefined " + word, "given twice");
      event.addPredefinedEvent(type);
    }
  }
};

void addMetric(Commands& commands) {
  const auto options = std::make_shared<MetricOptions>();
  CLI::App* subcommand = commands.add("metric", "Record a metric event", [options](Session& session) {
    const auto record = [&](Client& client) {
      client.recordTarselMetricEvent(&options->event);
      return Json();
    };
    if (session.ask("metric", Service::kMetrics, record)) session.print({{"recorded", true}}, "recorded");
  });
  addText(subcommand, "first", options->event.header1, "what the event is about, in two texts");
  addText(subcommand, "second", options->event.header2, "");
  const auto add = [&](const char* name, auto& values, const char* type, const char* about) {
    subcommand->add_option(name, values, about)->type_name(type)->allow_extra_args(false);
  };
  add("--string", options->texts, "KEY TEXT", "a field; may be repeated, as the others");
  add("--long", options->numbers, "KEY NUMBER", "a field, an integer of 64 bits");
  add("--double", options->reals, "KEY NUMBER", "a field, a floating-point number");
  add("--timestamp", options->times, "KEY NUMBER", "a field, milliseconds since 1970");
  add("--boolean", options->truths, "KEY true|false", "a field, true or false");
  add("--predefined", options->predefined, "NAME", "a fact about the device, such as DeviceType");
  subcommand->footer("The metrics service does not say whether it took the event.");
  subcommand->parse_complete_callback([options] { options->readFields(); });
}

}  // namespace

void sendEvent(Session& session, const AssistantEvent& event) {
  const std::string what = "event " + event.nspace + " " + event.name;
  std::optional<EventOutcome> told;
  CallbackQueue callbacks;  // Behind what the callback writes to: it may come as long as the queue is there.
  session.client().setExecutor(callbacks.executor());
  const auto send = [&](Client& client) {
    return client.send(event, [&told](const EventOutcome& outcome) { told = outcome; });
  };
  if (!session.order(what, Service::kEvents, send)) return;
  const auto outcome = await(session, callbacks, told);
  if (!outcome) return;
  const bool success = outcome->result.rfind("SUCCESS", 0) == 0;
  const char* advice = outcome->retryable ? ", may be tried again" : ", not to be tried again";
  if (outcome->result == "LOST") advice = ", may have been handled";
  session.print({{"namespace", event.nspace},
                 {"name", event.name},
                 {"result", outcome->result},
                 {"retryable", outcome->retryable}},
                outcome->result + (success ? "" : advice));
  if (!success) session.fail(failureOfOutcome(what, event, outcome->result));
}

TarselPredefined::Type readPredefined(const std::string& argument, const std::string& word) {
  std::string known;
  for (int number = 0;; ++number) {
    const auto type = static_cast<TarselPredefined::Type>(number);
    const std::string key = TarselPredefined::fromInteger(type);
    if (key.empty()) break;
    if (word == key || "_" + word == key || word == std::to_string(number)) return type;
    known += (known.empty() ? "" : ", ") + key.substr(1);
  }
  throw CLI::ValidationError(argument, "no fact is called '" + word + "'; there are " + known);
}

void addAssistantCommands(Commands& commands) {
  addEvent(commands);
  addDirective(commands);
  addMetric(commands);
}

}  // namespace orvelctl
