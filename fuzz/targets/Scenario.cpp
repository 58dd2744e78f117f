// A scenario file: whatever stands in it is refused with a line that says where, or is a scenario that stays the same when
// it is written and read again.
#include "sim/Scenario.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "Fuzz.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)
using namespace orvel::sim;   // NOLINT(google-build-using-namespace)

// A file in memory.
class File {
 public:
  File() : m_descriptor(::memfd_create("scenario", MFD_CLOEXEC)) {}

  std::string holding(const char* data, std::size_t size) const {
    require(::ftruncate(m_descriptor, 0) == 0 && ::pwrite(m_descriptor, data, size, 0) == static_cast<ssize_t>(size),
            "there is memory for a file");
    return "/proc/self/fd/" + std::to_string(m_descriptor);
  }

 private:
  int m_descriptor;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const File file;
  const std::string name = file.holding(reinterpret_cast<const char*>(data), size);
  try {
    const Json scenario = readScenarioFile(name);
    const std::string text = scenario.dump();
    require(readScenarioFile(file.holding(text.data(), text.size())) == scenario, "a scenario is one when written");
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
