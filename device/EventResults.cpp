#include "device/EventResults.h"

#include <algorithm>

#include "device/Scenario.h"

namespace orvel::sim {

int eventResultCalled(const std::string& word) {
  const auto* const named = std::find(kEventResults.begin(), kEventResults.end(), word);
  if (named != kEventResults.end()) return static_cast<int>(named - kEventResults.begin());
  try {
    return valueOf(Shape::number(), word, {}).get<int>();
  } catch (const ScenarioError&) {
    std::string names;
    for (const char* name : kEventResults) names += std::string(", ") + name;
    throw ScenarioError("'" + word + "' is not a result; a whole number of 32 bits is expected, or one of" +
                        names.substr(1));
  }
}

}  // namespace orvel::sim
