// The files that people hand to the simulated device. Each input is read as a scenario and as a recording: it is
// refused with a line that says where the mistake is, or it can be used and written again.
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz.h"
#include "device/Convert.h"
#include "device/Recording.h"
#include "device/Replay.h"
#include "device/Scenario.h"
#include "device/Trace.h"
#include "tools/orvel-sim/verbs/Mermaid.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::sim;   // NOLINT(google-build-using-namespace)

// The name of a file in memory that holds the text until the next call.
std::string fileOf(std::string_view text) {
  static const int s_file = ::memfd_create("input", MFD_CLOEXEC);
  require(::ftruncate(s_file, 0) == 0 && ::pwrite(s_file, text.data(), text.size(), 0) >= 0, "a file has room");
  return "/proc/self/fd/" + std::to_string(s_file);
}

// An error names the file, and then what the predicate takes for a place.
template <typename IsPlace>
void requirePlace(const std::string& what, const std::string& name, const IsPlace& isPlace) {
  require(what.rfind(name + ":", 0) == 0, "an error names the file");
  require(isPlace(what.substr(name.size() + 1)), "an error says where the mistake is, or what it is");
}

void checkScenario(std::string_view text) {
  const std::string name = fileOf(text);
  try {
    const Json scenario = readScenarioFile(name);
    require(readScenarioFile(fileOf(scenario.dump())) == scenario, "a scenario stays the same when it is written");
    require(scenario.size() == defaultScenario().size(), "a scenario has every section");
  } catch (const ScenarioError& error) {
    requirePlace(error.what(), name, [](const std::string& rest) {
      const auto begins = [&rest](const char* words) { return rest.rfind(words, 0) == 0; };
      return begins(" /") || begins(" not JSON") || begins(" it is empty") || begins(" a number is too large: '") ||
             begins(" the scenario is too large");
    });
  }
}

std::string masked(const Recording& recording) {
  std::string lines = recordingHeader(Json::object(), true).dump() + "\n";
  Redactions redactions(defaultScenario());
  for (const RecordedEntry& recorded : recording.entries) {
    Json entry = recorded.entry;
    redactions.apply(entry);
    lines += entry.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  return lines;
}

// Of a whole recording both can be made, and what fits no method is refused before.
void checkPictures(const std::string& name) {
  const std::vector<Json> lines = readTraffic(name).lines;
  require(Json::accept(traceOf(lines)), "a trace is JSON");
  require(mermaidOf(lines).rfind("sequenceDiagram\n", 0) == 0, "a diagram");
}

void checkRecording(std::string_view text) {
  const std::string name = fileOf(text);
  std::string lines;
  try {
    const Recording recording = readRecording(name);
    const Replay replay(recording, {true, false});
    lines = masked(recording);
    require(readRecording(fileOf(lines)).entries.size() == recording.entries.size(), "masking loses nothing");
    lines.clear();
    scenarioOf(recording);
    checkPictures(name);
  } catch (const RecordingError& error) {
    require(lines.empty(), "what is masked is a recording");
    requirePlace(error.what(), name, [](const std::string& rest) {
      const std::size_t end = rest.find_first_not_of("0123456789");
      return end != 0 && end != std::string::npos && rest.compare(end, 2, ": ") == 0;
    });
  } catch (const ScenarioError& error) {
    require(error.what()[0] == '/' || std::isalpha(static_cast<unsigned char>(error.what()[0])) != 0,
            "an error says what cannot be said in a scenario");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkScenario(text);
  checkRecording(text);
  return 0;
}
