// A scenario file: whatever stands in it is refused with a line that says where, or is a scenario that stays the same when
// it is written and read again.
#include "device/Scenario.h"

#include <string>

#include "Fuzz.h"
#include "MemoryFile.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::sim;   // NOLINT(google-build-using-namespace)

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile s_file;
  const std::string name = s_file.holding(reinterpret_cast<const char*>(data), size);
  try {
    const Json scenario = readScenarioFile(name);
    const std::string text = scenario.dump();
    require(readScenarioFile(s_file.holding(text)) == scenario, "a scenario is one when written");
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
  return 0;
}
