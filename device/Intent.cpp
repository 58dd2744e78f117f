#include "device/Intent.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace orvel::sim {
namespace {

constexpr char kNull[] = "null";
// The texts that an intent begins with, in wire order.
constexpr const char* kIntentTexts[] = {"action", "data", "type", "package"};
// An intent's length includes the four bytes that say it; that of its extras does not.
constexpr unsigned kIntentLengthCounted = 4;

void writeComponent(vesk_payload* payload, const Json& component) {
  writeText(payload, component.at("package"));
  writeText(payload, component.at("class"));
}

Json readExtras(RequestReader& reader) {
  Json extras = Json::array();
  for (std::int32_t left = reader.i32(); left != 0; --left) {
    if (left < 0) throw RemoteException(kBadParcelableException, "the number of extras is negative");
    const Json key = reader.text();
    const std::int32_t tag = reader.i32();
    const auto hasTag = [&](const ExtraType& type) { return type.tag == tag; };
    const auto type = std::find_if(extraTypes().begin(), extraTypes().end(), hasTag);
    if (type == extraTypes().end()) {
      throw RemoteException(kBadParcelableException,
                            "the extra " + key.dump() + " has the unknown type " + std::to_string(tag));
    }
    extras.push_back({{"key", key}, {"type", type->name}, {"value", type->read(reader)}});
  }
  return extras;
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
      {"string", "KEY=TEXT", Shape::text(), 0, readText, writeText},
      {"int", "KEY=NUMBER, of 32 bits", Shape::number(), 1, readInt32, writeInt32},
      {"long", "KEY=NUMBER, of 64 bits", Shape::number(Limits::min(), Limits::max()), 6, readInt64, writeInt64},
      {"bool", "KEY=true|false", Shape::flag(), 9, readFlag, writeFlag},
      {kNull, "KEY", Shape::text(), -1, readNothing, writeNothing},
  };
  return types;
}

void writeExtras(vesk_payload* payload, const Json& extras) {
  vesk_write_i32(payload, static_cast<std::int32_t>(extras.size()));
  for (const Json& extra : extras) {
    const auto isNamed = [&](const ExtraType& type) { return type.name == extra.at("type"); };
    const auto type = std::find_if(extraTypes().begin(), extraTypes().end(), isNamed);
    if (type == extraTypes().end()) throw std::out_of_range("no extra is of the type " + extra.at("type").dump());
    writeText(payload, extra.at("key"));
    vesk_write_i32(payload, type->tag);
    type->write(payload, extra.at("value"));
  }
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
  if (intent.is_null()) {
    for (int word = 0; word < 2; ++word) vesk_write_i32(payload, 0);  // not present, no length
    return;
  }
  vesk_write_i32(payload, 1);
  writeMeasured(payload, kIntentLengthCounted, [&] {
    for (const char* key : kIntentTexts) writeText(payload, intent.value(key, Json()));
    writeOptional(payload, intent.value("component", Json()), writeComponent);
    writeOptional(payload, intent.value("extras", Json()), writeExtras);
  });
}

Json readIntent(RequestReader& reader) {
  if (!reader.present()) return {};
  Json intent;
  reader.measured("the intent", kIntentLengthCounted, [&] {
    for (const char* key : kIntentTexts) {
      if (const Json text = reader.text(); !text.is_null()) intent[key] = text;
    }
    if (reader.present()) {
      Json& component = intent["component"];
      for (const char* key : {"package", "class"}) component[key] = reader.text();
    }
    if (reader.present()) {
      reader.measured("its extras", 0, [&] { intent["extras"] = readExtras(reader); });
    }
    if (const Json categories = reader.texts(); !categories.empty()) intent["categories"] = categories;
    intent["flags"] = reader.i32();
  });
  return intent;
}

std::string textOf(const Json& object, const char* key) {
  const auto text = object.find(key);
  return text == object.end() || text->is_null() ? "" : text->get<std::string>();
}

std::string packageOf(const Json& intent) {
  const auto component = intent.find("component");
  const std::string named = component == intent.end() ? "" : textOf(*component, "package");
  return named.empty() ? textOf(intent, "package") : named;
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
