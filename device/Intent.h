// Intents, as JSON: {"action", "data", "type", "package", "component": {"package", "class"}, "extras": [{"key", "type",
// "value"}], "categories": [text], "flags": number}. Only the action is always there, and flags in what a client sent.
//
// Clients do not write what they read: what they send says how long its extras are, and has categories and flags.
#pragma once

#include <string>
#include <vector>

#include "device/Scenario.h"
#include "device/Wire.h"

namespace orvel::sim {

// The kinds of extras.
struct ExtraType {
  std::string name;  // "string"
  std::string help;
  Shape shape;  // of the value
  std::int32_t tag;
  Json (*read)(RequestReader& reader);
  void (*write)(vesk_payload* payload, const Json& value);
};
const std::vector<ExtraType>& extraTypes();

// The number of extras and each of them, as lists of {"key", "type", "value"} have them.
void writeExtras(vesk_payload* payload, const Json& extras);

// From "KEY=VALUE", or "KEY" for a null. Throws ScenarioError.
Json readExtra(const ExtraType& type, const std::string& word);

// An argument reader: the intent as a client sends it; null where none is present.
Json readIntent(RequestReader& reader);

// The intent as clients receive it; a null one as absent.
void writeIntent(vesk_payload* payload, const Json& intent);

// A text of an intent or another object; empty where there is none.
std::string textOf(const Json& object, const char* key);

// The package that the intent is for: that of its component, else its own. Empty when it names none.
std::string packageOf(const Json& intent);

// Whether a receiver that registered for the action, types and schemes gets the broadcast, by the rules of the
// platform's intent filters. The lists may be null, which is the same as empty.
bool matchesIntent(const Json& action, const Json& types, const Json& schemes, const Json& intent);

}  // namespace orvel::sim
