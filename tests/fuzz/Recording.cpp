// A recording: whatever stands in it is refused with the line that is wrong, or can be replayed, and masked without
// becoming something else.
#include "device/Recording.h"

#include <cctype>
#include <string>

#include "Fuzz.h"
#include "MemoryFile.h"
#include "device/Convert.h"
#include "device/Replay.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::sim;   // NOLINT(google-build-using-namespace)

void requirePlace(const std::string& what, const std::string& file) {
  require(what.rfind(file + ":", 0) == 0, "an error names the file");
  const std::size_t number = file.size() + 1;
  const std::size_t end = what.find_first_not_of("0123456789", number);
  require(end != std::string::npos && end != number && what.compare(end, 2, ": ") == 0, "an error names the line");
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

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile s_file;
  const std::string name = s_file.holding(reinterpret_cast<const char*>(data), size);
  try {
    const Recording recording = readRecording(name);
    const Replay replay(recording, {true, false});
    const std::string lines = masked(recording);
    try {
      require(readRecording(s_file.holding(lines)).entries.size() == recording.entries.size(), "masking loses nothing");
    } catch (const RecordingError&) {
      require(false, "what is masked is a recording");
    }
    scenarioOf(recording);
  } catch (const RecordingError& error) {
    requirePlace(error.what(), name);
  } catch (const ScenarioError& error) {
    require(error.what()[0] == '/' || std::isalpha(static_cast<unsigned char>(error.what()[0])) != 0,
            "an error says what cannot be said in a scenario");
  }
  return 0;
}
