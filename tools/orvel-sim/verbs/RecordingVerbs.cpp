#include "tools/orvel-sim/verbs/RecordingVerbs.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "device/Convert.h"
#include "device/Recording.h"
#include "device/Replay.h"
#include "device/Trace.h"
#include "device/Traffic.h"
#include "tools/orvel-sim/host/OutputFile.h"
#include "tools/orvel-sim/host/Run.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/Mermaid.h"
#include "tools/orvel-sim/verbs/Seeds.h"
#include "tools/orvel-sim/verbs/TrafficConditions.h"

namespace orvel::sim {
namespace {

// With its warnings told.
template <typename Read>
auto readAndWarn(const std::string& file, Read read) {
  auto recording = read(file);
  for (const std::string& warning : recording.warnings) std::cerr << "orvel-sim: " << warning << std::endl;
  return recording;
}

struct ConvertOptions {
  std::string file;
  std::shared_ptr<TrafficConditions> conditions;
  std::uint64_t last = UINT64_MAX;
  std::string scenario;
  std::string trace;
  std::string mermaid;
  std::string seeds;
  bool replace = false;
};

// To the file, or, for -, to standard output.
void writeOutput(const std::string& file, const ConvertOptions& options, std::string text) {
  if (file != "-") return writeFile(file, options.replace, text);
  text.pop_back();  // print() ends the line
  print(text);
}

// What is made of nothing does not show that a condition was wrong.
void warnOfNothing(const ConvertOptions& options, std::size_t chosen, std::size_t all) {
  if (chosen != 0 || all == 0) return;
  std::cerr << "orvel-sim: " << options.file << ": of " << countedEntries(all) << " none meets the conditions"
            << std::endl;
}

void convertContents(const ConvertOptions& options, const TrafficFilter& filter) {
  Recording recording = readAndWarn(options.file, readRecording);
  std::vector<RecordedEntry>& entries = recording.entries;
  const auto isOut = [&](const RecordedEntry& recorded) { return !filter.matches(recorded.entry); };
  const std::size_t all = entries.size();
  entries.erase(std::remove_if(entries.begin(), entries.end(), isOut), entries.end());
  warnOfNothing(options, entries.size(), all);
  const std::size_t left = std::min<std::uint64_t>(entries.size(), options.last);
  entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(left));
  // Whole before a file is touched.
  if (!options.scenario.empty()) writeOutput(options.scenario, options, scenarioOf(recording).dump(2) + "\n");
  if (options.seeds.empty()) return;
  const std::size_t count = writeSeeds(recording, options.seeds);
  print(std::to_string(count) + (count == 1 ? " seed" : " seeds"));
}

void convertToPictures(const ConvertOptions& options, const TrafficFilter& filter) {
  RecordedTraffic traffic = readAndWarn(options.file, readTraffic);
  Newest chosen(options.last);
  std::size_t entries = 0;
  std::size_t matching = 0;
  for (Json& line : traffic.lines) {
    const bool isGap = line.contains("gap");
    const bool matches = !isGap && filter.matches(line);
    entries += isGap ? 0 : 1;
    matching += matches ? 1 : 0;
    if (isGap || matches) chosen.add(std::move(line));
  }
  warnOfNothing(options, matching, entries);
  const std::deque<Json> taken = chosen.take();
  const std::vector<Json> lines(taken.begin(), taken.end());
  try {
    if (!options.trace.empty()) writeOutput(options.trace, options, traceOf(lines));
    if (!options.mermaid.empty()) writeOutput(options.mermaid, options, mermaidOf(lines));
  } catch (const Json::exception& error) {
    throw RecordingError(options.file + ": " + plainText(error));
  }
}

}  // namespace

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
    given->run.replay = std::make_shared<Replay>(readAndWarn(given->file, readRecording), given->options);
    given->run.scenario = defaultScenario();
    status = runDevice(given->run);
  });
}

void addConvertVerb(CLI::App& app) {
  const auto given = std::make_shared<ConvertOptions>();
  CLI::App* convert =
      app.add_subcommand("convert", "Make a scenario, a picture or files of messages out of a recording");
  convert->add_option("file", given->file, "what traffic --record has written")->required()->type_name("");
  given->conditions = addTrafficConditions(*convert);
  addLast(*convert, given->last, "only so many of the newest, of those that meet the conditions");
  const auto addOutput = [&](const char* name, std::string& file, const char* about, const char* type) {
    return convert->add_option(name, file, about)->type_name(type);
  };
  addOutput("--scenario", given->scenario, "write a scenario of what the recording shows of the device", "OUT.json");
  addOutput("--trace", given->trace, "write a trace for https://ui.perfetto.dev", "OUT.json");
  addOutput("--mermaid", given->mermaid, "write a sequence diagram for Markdown", "OUT.mmd");
  convert->add_flag("--force", given->replace, "replace the files");
  addOutput("--seeds", given->seeds, "write each message that services sent as a file SERVICE.METHOD.N", "DIR");
  convert->footer(R"(OUT may be - for standard output.

Examples:
  orvel-sim convert session.jsonl --scenario mine.json && orvel-sim run --scenario mine.json
  orvel-sim convert session.jsonl --trace session.json
  orvel-sim convert session.jsonl delegate --last 20 --mermaid report.mmd
  orvel-sim convert session.jsonl --seeds messages)");
  convert->callback([given] {
    const bool isPicture = !given->trace.empty() || !given->mermaid.empty();
    const bool isContent = !given->scenario.empty() || !given->seeds.empty();
    if (!isPicture && !isContent) {
      throw ScenarioError("convert: --scenario, --trace, --mermaid or --seeds is expected");
    }
    const TrafficFilter filter = filterOf(*given->conditions);
    if (isContent) convertContents(*given, filter);
    if (isPicture) convertToPictures(*given, filter);
  });
}

}  // namespace orvel::sim
