#include "sim/Intent.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

namespace orvel::sim {
namespace {

constexpr char kNull[] = "null";

void writeComponent(vesk_payload* payload, const Json& component) {
  writeText(payload, component.at("package"));
  writeText(payload, component.at("class"));
}

void writeExtras(vesk_payload* payload, const Json& extras) {
  vesk_write_i32(payload, static_cast<std::int32_t>(extras.size()));
  for (const Json& extra : extras) {
    const auto isNamed = [&](const ExtraType& type) { return type.name == extra.at("type"); };
    const ExtraType& type = *std::find_if(extraTypes().begin(), extraTypes().end(), isNamed);
    writeText(payload, extra.at("key"));
    vesk_write_i32(payload, type.tag);
    type.write(payload, extra.at("value"));
  }
}

// The value as a presence marker and, unless it is null or empty, what `write` writes.
void writeOptional(vesk_payload* payload, const Json& value, void (*write)(vesk_payload*, const Json&)) {
  vesk_write_i32(payload, value.empty() ? 0 : 1);
  if (!value.empty()) write(payload, value);
}

// "image/*" and "image/png" match, whichever of them is the filter's.
bool matchesType(std::string_view filter, std::string_view type) {
  if (filter == type || filter == "*/*" || type == "*/*") return true;
  const std::size_t slash = filter.find('/');
  if (slash == std::string_view::npos || filter.substr(0, slash + 1) != type.substr(0, slash + 1)) return false;
  return filter.substr(slash) == "/*" || type.substr(slash) == "/*";
}

}  // namespace

const std::vector<ExtraType>& extraTypes() {
  using Limits = std::numeric_limits<std::int64_t>;
  static const std::vector<ExtraType> types = {
      {"string", "KEY=TEXT", Shape::text(), 0, writeText},
      {"int", "KEY=NUMBER, of 32 bits", Shape::number(), 1, writeInt32},
      {"long", "KEY=NUMBER, of 64 bits", Shape::number(Limits::min(), Limits::max()), 6, writeInt64},
      {"bool", "KEY=true|false", Shape::flag(), 9, writeFlag},
      {kNull, "KEY", Shape::text(), -1, writeNothing},
  };
  return types;
}

Json readExtra(const ExtraType& type, const std::string& word) {
  const bool hasValue = type.name != kNull;
  const std::size_t equals = hasValue ? word.find('=') : word.size();
  const std::string key = word.substr(0, equals);
  if (equals == std::string::npos || key.empty()) {
    throw ScenarioError("--" + type.name + ": expected " + type.help + ", not '" + word + "'");
  }
  Json extra = {{"key", key}, {"type", type.name}, {"value", nullptr}};
  if (hasValue) extra["value"] = valueOf(type.shape, word.substr(equals + 1), "--" + type.name + " " + key);
  return extra;
}

void writeIntent(vesk_payload* payload, const Json& intent) {
  vesk_write_i32(payload, 1);  // present
  const unsigned start = vesk_payload_get_position(payload);
  vesk_write_i32(payload, 0);  // how long it is, itself included; known at the end
  for (const char* key : {"action", "data", "type", "package"}) writeText(payload, intent.value(key, Json()));
  writeOptional(payload, intent.value("component", Json()), writeComponent);
  writeOptional(payload, intent.value("extras", Json()), writeExtras);
  const unsigned end = vesk_payload_get_position(payload);
  vesk_payload_set_position(payload, start);
  vesk_write_i32(payload, static_cast<std::int32_t>(end - start));
  vesk_payload_set_position(payload, end);
}

bool matchesIntent(const Json& action, const Json& types, const Json& schemes, const Json& intent) {
  if (action != intent.at("action")) return false;
  const Json data = intent.value("data", Json());
  const Json type = intent.value("type", Json());
  if (types.empty() && schemes.empty()) return data.is_null() && type.is_null();

  const std::string text = data.is_null() ? "" : data.get<std::string>();
  const std::size_t colon = text.find(':');
  const std::string scheme = colon == std::string::npos ? "" : text.substr(0, colon);
  const auto listed = [&](const Json& each) { return each == scheme; };
  const bool schemeMatches = schemes.empty() ? scheme.empty() || scheme == "content" || scheme == "file"
                                             : std::any_of(schemes.begin(), schemes.end(), listed);
  if (!schemeMatches) return false;
  if (types.empty()) return type.is_null();
  const auto matches = [&](const Json& each) {
    return each.is_string() && matchesType(each.get_ref<const std::string&>(), type.get_ref<const std::string&>());
  };
  return !type.is_null() && std::any_of(types.begin(), types.end(), matches);
}

}  // namespace orvel::sim
