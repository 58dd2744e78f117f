#include "tools/orvel-sim/verbs/TrafficVerb.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "device/Endpoint.h"
#include "device/Recording.h"
#include "tools/cli/Streams.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/Recorder.h"
#include "tools/orvel-sim/verbs/TrafficConditions.h"
#include "tools/orvel-sim/verbs/TrafficLines.h"

namespace orvel::sim {
namespace {

constexpr std::uint64_t kAll = UINT64_MAX;
constexpr std::uint64_t kLast = 10;
// How long the device is asked to wait for more; in between this process looks whether it is to end.
constexpr int kLongestWaitMs = 200;

struct TrafficOptions {
  std::shared_ptr<TrafficConditions> conditions;
  TrafficLines::Form form = TrafficLines::Form::kLine;
  bool past = false;
  std::uint64_t last = 0;  // 0: none is given
  RecordOptions record;
};

// Signals that end it, from now on taken only when it is asked for them.
class StopSignals {
 public:
  StopSignals() {
    sigemptyset(&m_signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&m_signals, signal);
    sigprocmask(SIG_BLOCK, &m_signals, nullptr);
  }
  bool arrived() const {
    const timespec now = {0, 0};
    return sigtimedwait(&m_signals, nullptr, &now) > 0;
  }

 private:
  sigset_t m_signals{};
};

// By which the device sees that the recorder has gone.
class Presence : public Endpoint {
  int onCall(unsigned, vesk_identity*, vesk_buffer*, vesk_payload*) override { return -ENOSYS; }
};

Json fetchTraffic(Control& control, std::uint64_t after, bool wait) {
  return control.send({{"order", "traffic"}, {"after", after}, {"wait", wait}, {"patienceMs", kLongestWaitMs}});
}

std::uint64_t newestOf(Control& control) {
  return fetchTraffic(control, kAll, false).at("newest");
}

std::string fetchRecorded(Control& control, bool wait) {
  return control.send({{"order", "fetchRecorded"}, {"wait", wait}}).at("text");
}

// Records until interrupted or, if the past alone is wanted, until there is no more of it.
void recordTraffic(const TrafficOptions& options) {
  TrafficFilter filter = filterOf(*options.conditions);
  const std::uint64_t last = options.last == 0 && options.past ? kAll : options.last;
  const bool devicePicks = filter.isOpen() || last == 0;
  const StopSignals signals;
  ::signal(SIGXFSZ, SIG_IGN);  // a file that must not grow is an error like others
  Presence presence;           // before the connection over which it goes, and which lets go of it
  Control control = Control::connect();
  Recorder recorder(options.record, control.send({{"order", "scenario"}}).at("scenario"), std::move(filter),
                    Newest(last));
  const Json start = control.send({{"order", "startRecording"}, {"last", devicePicks ? last : kAll}}, presence.get());
  recorder.start(start.at("after"), start.at("newest"));
  std::cerr << "orvel-sim: recording into " << options.record.file << std::endl;
  try {
    while (!options.past && !signals.arrived()) recorder.take(fetchRecorded(control, true));
    // What happened until now may still lie with the device; what happens meanwhile is not waited for.
    const std::uint64_t newest = options.past ? start.at("newest").get<std::uint64_t>() : newestOf(control);
    while (recorder.newest() < newest) {
      const std::string text = fetchRecorded(control, false);
      if (text.empty()) break;
      recorder.take(text);
    }
    recorder.finish(newest);
  } catch (const std::exception&) {
    recorder.summarize();
    throw;
  }
  recorder.summarize();
}

// Shows the entries that the device keeps and gets.
class TrafficView {
 public:
  explicit TrafficView(const TrafficOptions& options)
      : m_filter(filterOf(*options.conditions)), m_lines(options.form) {}

  // The newest of those that there are by now. Gives their number.
  std::size_t showPast(std::uint64_t last, bool tellsBeginning) {
    const std::uint64_t newest = newestOf(m_control);
    m_seen = m_filter.isOpen() ? newest - std::min(newest, last) : 0;
    Newest past(last, tellsBeginning);
    while (m_seen < newest) {
      for (Json& line : fetch(false)) past.add(std::move(line));
    }
    const std::deque<Json> lines = past.take();
    show(lines);
    return lines.size();
  }

  // On standard error, so that an empty output does not look like a device without traffic.
  void sayNothingIsThere() const {
    std::cerr << "orvel-sim: " << (m_filter.isOpen() ? "there is no traffic yet" : "nothing meets the conditions")
              << std::endl;
  }

  void showUntil(const StopSignals& signals) {
    while (!signals.arrived()) {
      show(fetch(true));
      expectReader();
    }
    for (const std::uint64_t newest = newestOf(m_control); m_seen < newest;) show(fetch(false));
  }

 private:
  // What follows the newest that was seen, with a gap for what the device keeps no more.
  std::deque<Json> fetch(bool wait) {
    Json answer = fetchTraffic(m_control, m_seen, wait);
    std::deque<Json> lines;
    for (Json& entry : answer.at("entries")) {
      const auto number = entry.at("number").get<std::uint64_t>();
      if (number > m_seen + 1) lines.push_back(recordingGap(m_seen, number - m_seen - 1));
      m_seen = number;
      if (m_filter.matches(entry)) lines.push_back(std::move(entry));
    }
    return lines;
  }

  // A pipe that is read no more is noticed before there is something to write into it.
  static void expectReader() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0) throw std::runtime_error(cli::cannotWrite(EPIPE));
  }

  void show(const std::deque<Json>& lines) const {
    std::string text;
    for (const Json& line : lines) text += (text.empty() ? "" : "\n") + m_lines.write(line);
    if (!text.empty()) print(text);
  }

  TrafficFilter m_filter;
  TrafficLines m_lines;
  Control m_control = Control::connect();
  std::uint64_t m_seen = 0;
};

void showTraffic(const TrafficOptions& options) {
  const StopSignals signals;  // before the connection, which has a thread
  TrafficView view(options);
  const std::uint64_t byDefault = options.past ? kAll : kLast;
  const std::size_t shown =
      view.showPast(options.last == 0 ? byDefault : options.last, options.last != 0 || options.past);
  if (!options.past) return view.showUntil(signals);
  if (shown == 0) view.sayNothingIsThere();
}

void addForms(CLI::App& verb, TrafficLines::Form& form) {
  const auto addForm = [&](const char* name, TrafficLines::Form meant, const char* about) {
    return verb.add_flag_callback(
        name, [&form, meant] { form = meant; }, about);
  };
  CLI::Option* json = addForm("--json", TrafficLines::Form::kJson, "one JSON object per line");
  addForm("--full", TrafficLines::Form::kFull, "all of it, and JSON over several lines")->excludes(json);
}

void addRecordOptions(CLI::App& verb, RecordOptions& options) {
  CLI::Option* record =
      verb.add_option("--record", options.file, "write it to a file until interrupted, for replay and convert");
  record->type_name("FILE");
  verb.add_flag("--force", options.replace, "replace the file of --record")->needs(record);
  verb.add_flag("--unmasked", options.unmasked, "record what identifies the owner, too")->needs(record);
}

}  // namespace

void addTrafficVerb(CLI::App& app) {
  const auto given = std::make_shared<TrafficOptions>();
  CLI::App* verb = app.add_subcommand("traffic", "Show the transactions as they happen, decoded, until interrupted");
  given->conditions = addTrafficConditions(*verb);
  addForms(*verb, given->form);
  addLast(*verb, given->last,
          "begin with so many of the newest; by default " + std::to_string(kLast) + ", with --record none");
  verb->add_flag("--past", given->past, "end after what the device keeps, the newest 1000 or --last of them");
  addRecordOptions(*verb, given->record);
  verb->footer(
      R"(Conditions are combined: an entry is shown when all are met. A line is cut to the width of the terminal, or to
COLUMNS.

--record masks, with "masked-1" and so on in their place:
)" + describeMaskedValues() +
      R"(
Examples:
  orvel-sim traffic delegate --not getSecureSetting   of one service, but for a method
  orvel-sim traffic --failed --past --last 3          the last three that failed
  orvel-sim traffic --client status-line --slower 5   of one program, what took longer than 5 ms
  orvel-sim traffic --faulted --full                  what faults have changed, whole
  orvel-sim traffic --record session.jsonl            record until Ctrl-C
  orvel-sim traffic --past --record crash.jsonl       what the device still knows)");
  verb->callback([given] {
    if (given->record.file.empty()) return showTraffic(*given);
    recordTraffic(*given);
  });
}

}  // namespace orvel::sim
