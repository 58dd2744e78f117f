#include "Arguments.h"

#include <algorithm>
#include <limits>

#include "Commands.h"
#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

using orvel::service_apis::TarselPredefined;

[[noreturn]] void refuse(const std::string& where, const std::string& expected, const Json& json) {
  throw CLI::ValidationError(where, "expected " + expected + ", not " + asText(json));
}

template <typename Integer>
void readInteger(const Json& json, const std::string& where, Integer& value) {
  constexpr long long kLeast = std::numeric_limits<Integer>::min();
  constexpr long long kMost = std::numeric_limits<Integer>::max();
  const bool too_large = json.is_number_unsigned() && json.get<std::uint64_t>() > static_cast<std::uint64_t>(kMost);
  if (!json.is_number_integer() || too_large || json.get<long long>() < kLeast) {
    refuse(where, std::string("an ") + typeName(static_cast<Integer*>(nullptr)), json);
  }
  value = json.get<Integer>();
}

void expectObject(const Json& json, const std::string& where, const std::vector<std::string>& known) {
  if (!json.is_object()) refuse(where, "an object", json);
  refuseOthers(json, where, known);
}

// One member of an object; it may be missing.
template <typename Value>
void member(const Json& object, const std::string& where, const char* name, Value& value) {
  if (object.contains(name)) readArgument(object.at(name), where + "." + name, value);
}

void readExtras(const Json& json, const std::string& where, orvel::service_apis::Bundle& extras) {
  if (!json.is_object()) refuse(where, "an object", json);
  for (const auto& [key, value] : json.items()) {
    const std::string at = where + "." + key;
    if (value.is_string()) {
      extras.put(key, value.get<std::string>());
    } else if (value.is_boolean()) {
      extras.put(key, value.get<bool>() ? 1 : 0);
    } else if (value.is_object() && value.size() == 1 && value.contains("long")) {
      long long number = 0;
      readArgument(value.at("long"), at, number);
      extras.put(key, number);
    } else if (value.is_number_integer()) {
      int number = 0;
      readArgument(value, at, number);
      extras.put(key, number);
    } else {
      refuse(at, R"(a text, an integer of 32 bits, true or false, or {"long": NUMBER})", value);
    }
  }
}

void readField(const Json& json, const std::string& where, const std::string& key, TarselMetricEvent& event) {
  if (json.is_string()) {
    std::string text = json.get<std::string>();
    event.addStringEvent(key, text);
  } else if (json.is_boolean()) {
    event.addBooleanEvent(key, json.get<bool>());
  } else if (json.is_number_float()) {
    event.addDoubleEvent(key, json.get<double>());
  } else {
    const bool is_time = json.is_object() && json.size() == 1 && json.contains("timestamp");
    if (!is_time && !json.is_number_integer()) {
      refuse(where, R"(a text, a number, true or false, or {"timestamp": MILLISECONDS})", json);
    }
    long long number = 0;
    readArgument(is_time ? json.at("timestamp") : json, where, number);
    is_time ? event.addTimestampEvent(key, number) : event.addLongEvent(key, number);
  }
}

}  // namespace

const char kObjectTypes[] =
    R"(intent: {"action", "data", "type", "package": texts, "component": "PACKAGE/CLASS", "categories": [texts],
  "flags": integer, "extras": {KEY: text, integer of 32 bits, true or false, or {"long": integer}}}
event: {"namespace", "name", "event3" to "event7": texts, "flag": true or false, "payload": text}
metric: {"header1", "header2": texts, "predefined": [names as in orvelctl metric], "fields":
  {KEY: text, integer, number, true or false, or {"timestamp": milliseconds since 1970}}})";

void refuseOthers(const Json& object, const std::string& where, const std::vector<std::string>& known) {
  for (const auto& [key, value] : object.items()) {
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    std::string list;
    for (const std::string& name : known) list += (list.empty() ? "; there are " : ", ") + name;
    const std::string near = orvel::cli::didYouMean(key, known);
    throw CLI::ValidationError(where, "nothing is called '" + key + "'" + (near.empty() ? list : near));
  }
}

void readArgument(const Json& json, const std::string& where, std::string& value) {
  if (!json.is_string()) refuse(where, "a text", json);
  value = json.get<std::string>();
}

void readArgument(const Json& json, const std::string& where, int& value) {
  readInteger(json, where, value);
}

void readArgument(const Json& json, const std::string& where, long long& value) {
  readInteger(json, where, value);
}

void readArgument(const Json& json, const std::string& where, bool& value) {
  if (!json.is_boolean()) refuse(where, "true or false", json);
  value = json.get<bool>();
}

void readArgument(const Json& json, const std::string& where, std::vector<std::string>& value) {
  if (!json.is_array()) refuse(where, "a list of texts", json);
  for (const Json& text : json) readArgument(text, where, value.emplace_back());
}

void readArgument(const Json& json, const std::string& where, OrvelIntent& value) {
  expectObject(json, where, {"action", "data", "type", "package", "component", "categories", "flags", "extras"});
  member(json, where, "action", value.action);
  member(json, where, "data", value.data);
  member(json, where, "type", value.text3);
  member(json, where, "package", value.package);
  member(json, where, "categories", value.categories);
  member(json, where, "flags", value.flags);
  if (json.contains("extras")) readExtras(json.at("extras"), where + ".extras", value.extras);
  if (!json.contains("component")) return;
  std::string word;
  member(json, where, "component", word);
  const auto component = readComponent(word);
  if (!component) refuse(where + ".component", "PACKAGE/CLASS", json.at("component"));
  value.component = *component;
}

void readArgument(const Json& json, const std::string& where, AssistantEvent& value) {
  expectObject(json, where, {"namespace", "name", "event3", "event4", "event5", "event6", "event7", "flag", "payload"});
  member(json, where, "namespace", value.nspace);
  member(json, where, "name", value.name);
  member(json, where, "event3", value.event3);
  member(json, where, "event4", value.event4);
  member(json, where, "event5", value.event5);
  member(json, where, "event6", value.event6);
  member(json, where, "event7", value.event7);
  member(json, where, "flag", value.flag);
  member(json, where, "payload", value.payload);
}

void readArgument(const Json& json, const std::string& where, TarselMetricEvent& value) {
  expectObject(json, where, {"header1", "header2", "fields", "predefined"});
  member(json, where, "header1", value.header1);
  member(json, where, "header2", value.header2);
  std::vector<std::string> facts;
  member(json, where, "predefined", facts);
  for (const std::string& fact : facts) value.addPredefinedEvent(readPredefined(where + ".predefined", fact));
  if (!json.contains("fields")) return;
  const Json& fields = json.at("fields");
  if (!fields.is_object()) refuse(where + ".fields", "an object", fields);
  for (const auto& [key, field] : fields.items()) readField(field, where + ".fields." + key, key, value);
}

}  // namespace orvelctl
