// The files that people hand to the simulated device. Each input is read as a scenario and as a recording: it is
// refused with a line that says where the mistake is, or it can be used and written again.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <string_view>

#include "Fuzz.h"
#include "device/Convert.h"
#include "device/Recording.h"
#include "device/Replay.h"
#include "device/Scenario.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::sim;   // NOLINT(google-build-using-namespace)

// The name of a file in memory that holds the text until the next call.
std::string fileOf(std::string_view text) {
  static const int s_file = ::memfd_create("input", MFD_CLOEXEC);
  require(
      ::ftruncate(s_file, 0) == 0 && ::pwrite(s_file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
      "there is memory for a file");
  return "/proc/self/fd/" + std::to_string(s_file);
}

void checkScenario(std::string_view text) {
  const std::string name = fileOf(text);
  try {
    const Json scenario = readScenarioFile(name);
    require(readScenarioFile(fileOf(scenario.dump())) == scenario, "a scenario stays the same when it is written");
    require(scenario.size() == defaultScenario().size(), "a scenario has every section");
  } catch (const ScenarioError& error) {
    const std::string what = error.what();
    require(what.rfind(name + ": ", 0) == 0, "an error names the file");
    const std::string rest = what.substr(name.size() + 2);
    const auto begins = [&rest](const char* words) { return rest.rfind(words, 0) == 0; };
    require(begins("/") || begins("parse error at line ") || begins("number overflow parsing '") ||
                begins("the scenario is too large"),
            "an error says where the mistake is, or what it is");
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

void checkRecording(std::string_view text) {
  const std::string name = fileOf(text);
  try {
    const Recording recording = readRecording(name);
    const Replay replay(recording, {true, false});
    const std::string lines = masked(recording);
    try {
      require(readRecording(fileOf(lines)).entries.size() == recording.entries.size(), "masking loses nothing");
    } catch (const RecordingError&) {
      require(false, "what is masked is a recording");
    }
    scenarioOf(recording);
  } catch (const RecordingError& error) {
    const std::string what = error.what();
    require(what.rfind(name + ":", 0) == 0, "an error names the file");
    const std::size_t number = name.size() + 1;
    const std::size_t end = what.find_first_not_of("0123456789", number);
    require(end != std::string::npos && end != number && what.compare(end, 2, ": ") == 0, "an error names the line");
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
