// The scenario in force, and how it changes. A change is worked out once, where the scenario is kept, into edits of
// whole values; processes with a copy apply the same edits, and services hear of each value that has become another.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

// A value of the scenario that has become another; of a map, one of its entries.
struct Difference {
  std::string section;  // "delegate"
  std::string field;    // "settings"; empty for what stands outside the sections
  std::string key;      // of the entry: "volume"; empty where the field is not a map
  Json was;             // null: there was none
  Json is;              // null: there is none any more

  bool isOf(const char* ofSection, const char* ofField) const { return section == ofSection && field == ofField; }
};

class CurrentScenario {
 public:
  explicit CurrentScenario(Json scenario);

  const Json& json() const { return m_scenario; }

  // The edits that make the change: a list of {"path": JSON pointer to a field of a section or to an entry of a map,
  // "value": what it becomes, complete}; without "value" it is removed. `change` is {"path", "value"} for any value, an
  // act (Acts.h), or {"scenario"} for all of it. Throws ScenarioError for what makes no scenario, or what the act
  // throws.
  Json resolve(const Json& change) const;

  // Makes edits that resolve has given, here or in another process with the same scenario. Gives what they changed.
  std::vector<Difference> apply(const Json& edits);

 private:
  Json m_scenario;
  mutable std::optional<std::size_t> m_size;  // of its text, from the first change on
};

// The edits that turn the sections of any scenario into those of this one, which is complete.
Json editsTo(const Json& scenario);

}  // namespace orvel::sim
