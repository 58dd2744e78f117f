// Broadcast intents, as JSON: {"action", "data", "type", "package", "component": {"package", "class"}, "extras":
// [{"key", "type", "value"}]}. Only the action is always there.
#pragma once

#include <string>
#include <vector>

#include "sim/Scenario.h"
#include "sim/Wire.h"

namespace orvel::sim {

// The kinds of extras.
struct ExtraType {
  std::string name;  // "string"
  std::string help;
  Shape shape;  // of the value
  std::int32_t tag;
  void (*write)(vesk_payload* payload, const Json& value);
};
const std::vector<ExtraType>& extraTypes();

// From "KEY=VALUE", or "KEY" for a null. Throws ScenarioError.
Json readExtra(const ExtraType& type, const std::string& word);

void writeIntent(vesk_payload* payload, const Json& intent);

// Whether a receiver that registered for the action, types and schemes gets the broadcast, by the rules of the
// platform's intent filters. The lists may be null, which is the same as empty.
bool matchesIntent(const Json& action, const Json& types, const Json& schemes, const Json& intent);

}  // namespace orvel::sim
