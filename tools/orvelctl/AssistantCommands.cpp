// orvelctl event, directive and metric: the voice assistant and the device's metrics.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Commands.h"
#include "LogWatch.h"
#include "Services.h"
#include "Watch.h"
#include "orvel/TarselMetricEvent.h"

namespace orvelctl {
namespace {

using orvel::service_apis::TarselMetricEvent;
using orvel::service_apis::TarselPredefined;

constexpr char kEventFooter[] = R"(
What the texts, the flag and the payload mean is between the caller and the assistant; a payload ends at its first NUL.
The result is one of SUCCESS, SUCCESS_NO_CONTENT, MARO_DISCONNECTED, INTERNAL_ERROR, TIMEOUT, INVALID_EVENT and
UNKNOWN_ERROR; the exit status is 0 for the first two and 1 for the others. Without --timeout it is waited for until it
comes or the service dies.)";

constexpr char kDirectiveFooter[] = R"(
One process at a time has a namespace. It keeps it until it ends, also when services die. `orvelctl watch
directive:NAMESPACE` is the same beside other kinds of changes.)";

constexpr std::size_t kMoreTexts = 5;  // of an event, behind its namespace and its name

struct EventOptions {
  std::string nspace;
  std::string name;
  std::vector<std::string> texts;
  bool flag = false;
  std::string payload;
  std::optional<std::string> payload_file;
};

struct EventResult {
  std::string name;
  bool retryable = false;
};

// From the callback to the thread that waits. Shared by the two, because a callback may come after the wait has ended.
class Outcome {
 public:
  Outcome() : m_there(eventfd(0, EFD_CLOEXEC)) {
    if (m_there < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Outcome() { close(m_there); }
  Outcome(const Outcome&) = delete;
  Outcome& operator=(const Outcome&) = delete;

  void set(EventResult result) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_result = std::move(result);
    eventfd_write(m_there, 1);
  }
  std::optional<EventResult> get() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_result;
  }

  // Readable once there is a result.
  int descriptor() const { return m_there; }

 private:
  const int m_there;
  std::mutex m_mutex;
  std::optional<EventResult> m_result;
};

// Waits for the result; nothing when the session ends or the service dies first, which `losses_before` tells.
std::optional<EventResult> await(const Session& session, Outcome& outcome, unsigned losses_before) {
  constexpr int kSilentMs = 1000;
  int patience = kSilentMs;
  while (true) {
    pollfd descriptors[] = {
        {session.interruption(), POLLIN, 0}, {outcome.descriptor(), POLLIN, 0}, {losses(), POLLIN, 0}};
    if (poll(descriptors, std::size(descriptors), patience) == 0) {
      std::cerr << "orvelctl: waiting for the result; Ctrl-C gives up" << std::endl;
      patience = -1;
    }
    if (descriptors[0].revents != 0) return std::nullopt;
    // A death is told after everything that the service has sent before.
    const bool lost = lossesOf(kEvents) != losses_before;
    if (auto result = outcome.get(); result || lost) return result;
    eventfd_t ignored = 0;
    eventfd_read(losses(), &ignored);
  }
}

void sendEvent(Session& session, const EventOptions& event) {
  const std::string what = "event " + event.nspace + " " + event.name;
  std::array<std::string, kMoreTexts> texts;
  std::copy(event.texts.begin(), event.texts.end(), texts.begin());
  const auto outcome = std::make_shared<Outcome>();
  const auto take = [outcome](std::string name, bool retryable) { outcome->set({std::move(name), retryable}); };
  const auto send = [&](Client& client) {
    return client.sendEvent(event.nspace, event.name, texts[0], texts[1], texts[2], texts[3], texts[4], event.flag,
                            event.payload, take);
  };
  const unsigned losses_before = lossesOf(kEvents);
  const auto accepted = session.ask(what, kEvents, false, send);
  if (!accepted) return;
  if (*accepted == false) return session.fail(what, "refused", kEvents);
  const auto result = await(session, *outcome, losses_before);
  if (!result) {
    if (session.status() == kSuccess) session.fail(what, "the service died before the result", kEvents, kNotBound);
    return;
  }
  const bool success = result->name.rfind("SUCCESS", 0) == 0;
  const char* const advice = result->retryable ? ", may be tried again" : ", not to be tried again";
  session.print(
      {{"namespace", event.nspace}, {"name", event.name}, {"result", result->name}, {"retryable", result->retryable}},
      result->name + (success ? "" : advice));
  if (!success) session.fail(what, "the result is " + result->name, kEvents);
}

// The content of a file, of standard input for "-"; throws CLI::ValidationError.
std::string readFile(const std::string& name) {
  std::ostringstream text;
  std::ifstream file;
  errno = 0;
  if (name != "-") file.open(name, std::ios::binary);
  text << (name == "-" ? std::cin : file).rdbuf();
  if (errno != 0) throw CLI::ValidationError("--payload-file", "cannot read " + name + ": " + std::strerror(errno));
  return text.str();
}

void addEvent(Commands& commands) {
  const auto event = std::make_shared<EventOptions>();
  CLI::App* subcommand = commands.add("event", "Send the voice assistant an event and wait for its result",
                                      [event](Session& session) { sendEvent(session, *event); });
  addText(subcommand, "namespace", event->nspace, "");
  addText(subcommand, "name", event->name, "");
  subcommand->add_option("texts", event->texts, "up to five more texts")->type_name("");
  subcommand->add_flag("--flag", event->flag, "set the event's flag");
  CLI::Option* payload = subcommand->add_option("--payload", event->payload, "what goes along")->type_name("TEXT");
  subcommand->add_option("--payload-file", event->payload_file, "the same from a file, - for standard input")
      ->type_name("FILE")
      ->excludes(payload);
  subcommand->footer(kEventFooter + 1);
  subcommand->parse_complete_callback([event] {
    if (event->texts.size() > kMoreTexts) {
      throw CLI::ValidationError("texts", "at most five, '" + event->texts[kMoreTexts] + "' is one too many");
    }
    if (event->payload_file) event->payload = readFile(*event->payload_file);
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
  addLimits(subcommand, *options);
  subcommand->footer(kDirectiveFooter + 1);
  subcommand->parse_complete_callback([options, namespaces] {
    for (const std::string& nspace : *namespaces) options->kinds.push_back("directive:" + nspace);
  });
}

// The number of a fact, given by that or by its key, whose underscore may be left out.
TarselPredefined::Type readPredefined(const std::string& word) {
  std::string known;
  for (int number = 0;; ++number) {
    const auto type = static_cast<TarselPredefined::Type>(number);
    const std::string key = TarselPredefined::fromInteger(type);
    if (key.empty()) break;
    if (word == key || "_" + word == key || word == std::to_string(number)) return type;
    known += (known.empty() ? "" : ", ") + key.substr(1);
  }
  throw CLI::ValidationError("--predefined", "no fact is called '" + word + "'; there are " + known);
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
      const TarselPredefined::Type type = readPredefined(word);
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
    if (session.ask("metric", kMetrics, nullptr, record)) session.print({{"recorded", true}}, "recorded");
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

void addAssistantCommands(Commands& commands) {
  addEvent(commands);
  addDirective(commands);
  addMetric(commands);
}

}  // namespace orvelctl
