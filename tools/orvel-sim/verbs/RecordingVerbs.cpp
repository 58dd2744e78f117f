#include "tools/orvel-sim/verbs/RecordingVerbs.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>

#include "device/Convert.h"
#include "device/Endpoint.h"
#include "device/Recording.h"
#include "device/Replay.h"
#include "device/Traffic.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/host/OutputFile.h"
#include "tools/orvel-sim/host/Run.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/Seeds.h"

namespace orvel::sim {
namespace {

struct RecordOptions {
  std::string file;  // empty: nothing is recorded
  bool replace = false;
  bool unmasked = false;
};

// Signals that end a recording, from now on taken only when it is asked for them.
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

// Makes lines of the file out of what the device hands over.
class Recorder {
 public:
  Recorder(const RecordOptions& options, const Json& scenario)
      : m_file(options.file, options.replace), m_redactions(scenario), m_masked(!options.unmasked) {
    m_file.write(recordingHeader({{"type", scenario.at("delegate").at("type")}}, m_masked).dump() + "\n");
  }

  void startAfter(std::uint64_t number) { m_newest = number; }
  std::uint64_t newest() const { return m_newest; }

  // The text goes on where the one before was cut.
  void take(const std::string& text) {
    m_text += text;
    std::string lines;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = m_text.find('\n', begin)) != std::string::npos; begin = end + 1) {
      addEntry(parseMessage(m_text.substr(begin, end - begin)), lines);
    }
    m_text.erase(0, begin);
    m_file.write(lines);
  }

  void summarize() const {
    std::cerr << "orvel-sim: " << m_entries << (m_entries == 1 ? " entry was" : " entries were") << " recorded";
    if (m_missing != 0) std::cerr << ", " << m_missing << " are missing";
    if (m_shortened != 0) std::cerr << ", of " << m_shortened << " there was only the beginning";
    std::cerr << std::endl;
  }

 private:
  void addEntry(Json entry, std::string& lines) {
    const auto number = entry.at("number").get<std::uint64_t>();
    if (const std::uint64_t missing = number - m_newest - 1; missing != 0) {
      lines += recordingGap(m_newest, missing).dump() + "\n";
      m_missing += missing;
    }
    m_newest = number;
    ++m_entries;
    if (entry.contains("shortened")) ++m_shortened;
    if (m_masked) m_redactions.apply(entry);
    lines += entry.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }

  OutputFile m_file;
  Redactions m_redactions;
  bool m_masked;
  std::string m_text;  // a line that has not ended
  std::uint64_t m_newest = 0;
  std::uint64_t m_entries = 0;
  std::uint64_t m_missing = 0;
  std::uint64_t m_shortened = 0;
};

std::string fetch(Control& control, bool wait) {
  return control.send({{"order", "fetchRecorded"}, {"wait", wait}}).at("text");
}

Recording readAndWarn(const std::string& file) {
  Recording recording = readRecording(file);
  for (const std::string& warning : recording.warnings) std::cerr << "orvel-sim: " << warning << std::endl;
  return recording;
}

void addRecordOptions(CLI::App& traffic, RecordOptions& options) {
  CLI::Option* record =
      traffic.add_option("--record", options.file, "write it to a file until interrupted, for replay and convert");
  record->type_name("FILE");
  traffic.add_flag("--force", options.replace, "replace the file of --record")->needs(record);
  traffic.add_flag("--unmasked", options.unmasked, "record what identifies the owner, too")->needs(record);
  traffic.footer("--record masks, with \"masked-1\" and so on in their place:\n" + describeMaskedValues() + R"(
Examples:
  orvel-sim traffic --last 20                    what just happened, and then what happens
  orvel-sim traffic --record session.jsonl       record until Ctrl-C
  orvel-sim traffic --past --record crash.jsonl  what the device still knows)");
}

// Records from so many of the newest entries on, until interrupted or, if `past`, until there are no more.
void recordTraffic(const RecordOptions& options, std::uint64_t last, bool past) {
  const StopSignals signals;
  ::signal(SIGXFSZ, SIG_IGN);  // a file that must not grow is an error like others
  Presence presence;           // before the connection over which it goes, and which lets go of it
  Control control = Control::connect();
  Recorder recorder(options, control.send({{"order", "scenario"}}).at("scenario"));
  const Json start = control.send({{"order", "startRecording"}, {"last", last}}, presence.get());
  recorder.startAfter(start.at("after"));
  std::cerr << "orvel-sim: recording into " << options.file << std::endl;
  try {
    while (!past && !signals.arrived()) recorder.take(fetch(control, true));
    // What happened until now may still lie with the device; what happens meanwhile is not waited for.
    const Json kept = control.send({{"order", "traffic"}, {"after", UINT64_MAX}, {"wait", false}});
    while (recorder.newest() < kept.at("newest").get<std::uint64_t>()) {
      const std::string text = fetch(control, false);
      if (text.empty()) break;
      recorder.take(text);
    }
  } catch (const std::exception&) {
    recorder.summarize();
    throw;
  }
  recorder.summarize();
}

void showTraffic(std::uint64_t last, bool follow, bool json) {
  Control control = Control::connect();
  constexpr std::uint64_t kNone = UINT64_MAX;
  const auto newest =
      control.send({{"order", "traffic"}, {"after", kNone}, {"wait", false}}).at("newest").get<std::uint64_t>();
  std::uint64_t seen = newest - std::min(newest, last);
  while (follow || seen < newest) {
    const Json answer = control.send({{"order", "traffic"}, {"after", seen}, {"wait", follow}});
    for (const Json& entry : answer.at("entries")) {
      print(json ? entry.dump() : describeEntry(entry));
      seen = entry.at("number");
    }
    if (answer.at("entries").empty()) seen = std::max(seen, answer.at("newest").get<std::uint64_t>());
  }
}

}  // namespace

void addTrafficVerb(CLI::App& app) {
  struct Given {
    bool json = false;
    bool past = false;
    std::uint64_t last = 10;
    RecordOptions record;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* verb = app.add_subcommand("traffic", "Show the transactions as they happen, decoded, until interrupted");
  verb->add_flag("--json", given->json, "one JSON object per line");
  CLI::Option* last = verb->add_option("--last", given->last, "begin with so many of the newest that are over");
  last->description(last->get_description() + "; by default " + std::to_string(given->last) + ", with --record none");
  verb->add_flag("--past", given->past, "show all that are kept, at most 1000, and end");
  addRecordOptions(*verb, given->record);
  verb->callback([given, last] {
    const std::uint64_t shown = given->past ? UINT64_MAX : given->last;
    if (given->record.file.empty()) return showTraffic(shown, !given->past, given->json);
    recordTraffic(given->record, last->count() == 0 && !given->past ? 0 : shown, given->past);
  });
}

void addReplayVerb(CLI::App& app, int& status) {
  struct Given {
    std::string file;
    Replay::Options options;
    RunOptions run;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* replay = app.add_subcommand("replay", "Serve a device that answers from a recording");
  replay->add_option("file", given->file, "what traffic --record has written")->required()->type_name("");
  replay->add_flag("--timing", given->options.timing, "let everything take as long as it did");
  replay->add_flag("--loop", given->options.loop,
                   "after the last answer to equal requests comes the first again, not the last");
  replay->add_option("command", given->run.command,
                     "after --: what to run with a private device, ready before it starts");
  replay->footer(
      R"(Requests are matched by service, method and arguments. One that is not in the recording is answered by an
exception that says so, with service, method and arguments.

Examples:
  orvel-sim replay session.jsonl                       serve until Ctrl-C
  orvel-sim replay session.jsonl -- orvelctl device    run a command against the recorded device
  orvel-sim replay slow.jsonl --timing -- ./my-test    with the delays that there were)");
  replay->callback([given, &status] {
    given->run.replay = std::make_shared<Replay>(readAndWarn(given->file), given->options);
    given->run.scenario = defaultScenario();
    status = runDevice(given->run);
  });
}

void addConvertVerb(CLI::App& app) {
  struct Given {
    std::string file;
    std::string scenario;
    std::string seeds;
    bool replace = false;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* convert = app.add_subcommand("convert", "Make a scenario, or files of the messages, out of a recording");
  convert->add_option("file", given->file, "what traffic --record has written")->required()->type_name("");
  CLI::Option* scenario =
      convert->add_option("--scenario", given->scenario, "write a scenario of what the recording shows of the device");
  scenario->type_name("OUT.json");
  convert->add_flag("--force", given->replace, "replace the file of --scenario")->needs(scenario);
  convert->add_option("--seeds", given->seeds, "write each message that services sent as a file SERVICE.METHOD.N")
      ->type_name("DIR");
  convert->footer(R"(Examples:
  orvel-sim convert session.jsonl --scenario mine.json && orvel-sim run --scenario mine.json
  orvel-sim convert session.jsonl --seeds messages)");
  convert->callback([given] {
    if (given->scenario.empty() && given->seeds.empty())
      throw ScenarioError("convert: --scenario or --seeds is expected");
    const Recording recording = readAndWarn(given->file);
    if (!given->scenario.empty()) {
      const std::string text = scenarioOf(recording).dump(2) + "\n";  // before the file is touched
      OutputFile(given->scenario, given->replace).write(text);
    }
    if (!given->seeds.empty()) {
      const std::size_t count = writeSeeds(recording, given->seeds);
      print(std::to_string(count) + (count == 1 ? " seed" : " seeds"));
    }
  });
}

}  // namespace orvel::sim
