// What a recording hides, and what may stand for it.
#include <algorithm>
#include <cctype>
#include <sstream>

#include "device/Recording.h"

namespace orvel::sim {
namespace {

constexpr char kMask[] = "masked-";
// A shorter identity stands in too many texts that have nothing to do with it.
constexpr std::size_t kShortestIdentity = 4;

enum class Kind {
  kText,      // every text but the empty one
  kIdentity,  // likewise, and wherever else it stands
  kAccount,   // likewise, but for the spelling of none
  kSetting,   // a text that is not a whole number: clients read settings as numbers
  kUri,       // what follows the scheme, unless that is "package"
};

// Where the value stands in entries of the service and name. In a path * is every element or any end of a key, and !3
// every element but the one with the index 3.
struct MaskedValue {
  const char* service;
  const char* name;  // of the method or notification; empty: of all
  const char* path;
  Kind kind;
  const char* about;
};

constexpr MaskedValue kMaskedValues[] = {
    {"delegate", "getDeviceName", "/reply", Kind::kIdentity, "the device's name"},
    {"delegate", "getDSNV2", "/reply", Kind::kIdentity, "the serial number"},
    {"delegate", "getDirectedId", "/reply", Kind::kAccount,
     "the account's identifier, unless it says that there is none"},
    {"delegate", "getDeviceInfo", "/reply/!3", Kind::kText, "the device information but the type"},
    {"delegate", "getSecureSetting", "/reply", Kind::kSetting, "a setting that is not a whole number"},
    {"delegate", "settingChanged", "/arguments/value", Kind::kSetting, "a setting that is not a whole number"},
    {"delegate", "broadcast", "/arguments/data", Kind::kUri,
     "the data of a broadcast, behind the scheme; not of package:"},
    {"delegate", "broadcast", "/arguments/extras/*/value", Kind::kText, "the text extras of a broadcast"},
    {"delegate", "", "/arguments/intent/data", Kind::kUri, "the data of a client's intent, likewise"},
    {"delegate", "", "/arguments/intent/extras/*/value", Kind::kText, "the text extras of a client's intent"},
    {"events", "sendEvent", "/arguments/metadata/event*", Kind::kText,
     "the texts of an event behind its namespace and name"},
    {"events", "sendEvent", "/arguments/payload", Kind::kText, "the payload of an event"},
    {"coordinator", "directive", "/arguments/texts/*", Kind::kText, "the texts of a directive"},
    {"metrics", "recordTarselMetricEvent", "/arguments/event/fields/*/value", Kind::kText,
     "the texts of a metric's fields"},
};

std::vector<std::string> segmentsOf(const std::string& path) {
  std::vector<std::string> segments;
  std::istringstream stream(path.substr(1));
  for (std::string segment; std::getline(stream, segment, '/');) segments.push_back(segment);
  return segments;
}

bool fits(const std::string& segment, const std::string& key) {
  if (segment[0] == '!') return key != segment.substr(1);
  const std::size_t star = segment.find('*');
  return star == std::string::npos ? key == segment : key.compare(0, star, segment, 0, star) == 0;
}

template <typename Found>
void forEachAt(Json& value, const std::vector<std::string>& segments, std::size_t next, const Found& found) {
  if (next == segments.size()) return found(value);
  if (!value.is_structured()) return;
  for (const auto& [key, element] : value.items()) {
    if (fits(segments[next], key)) forEachAt(element, segments, next + 1, found);
  }
}

template <typename Found>
void forEachText(Json& value, const Found& found) {
  if (value.is_string()) return found(value.get_ref<std::string&>());
  if (!value.is_structured()) return;
  for (const auto& [key, element] : value.items()) {
    // `type` of an extra names its type; it is not user text.
    if (key == "type" && value.contains("key")) continue;
    forEachText(element, found);
  }
}

bool isWholeNumber(const std::string& text) {
  const auto digits = text.begin() + (text[0] == '-' ? 1 : 0);
  return digits != text.end() && std::all_of(digits, text.end(), [](unsigned char c) { return std::isdigit(c); });
}

// Where a mask stands in the text, and its length; 0 for none.
std::pair<std::size_t, std::size_t> findMask(const std::string& text) {
  const std::size_t begin = text.find(kMask);
  if (begin == std::string::npos) return {0, 0};
  const std::size_t digits = begin + std::string(kMask).size();
  const std::size_t end = std::min(text.find_first_not_of("0123456789", digits), text.size());
  return {begin, end == digits ? 0 : end - begin};
}

bool mayStandForText(const std::string& recorded, const std::string& given, MetTexts& met) {
  const auto [begin, size] = findMask(recorded);
  if (size == 0) return recorded == given;
  const std::string mask = recorded.substr(begin, size);
  const std::string tail = recorded.substr(begin + size);
  if (given.size() <= begin + tail.size()) return false;  // a mask stands for no empty text
  const std::size_t left = given.size() - begin - tail.size();
  if (given.compare(0, begin, recorded, 0, begin) != 0 || given.compare(begin + left, tail.size(), tail) != 0) {
    return false;
  }
  const std::string text = given.substr(begin, left);
  if (const auto known = met.find(mask); known != met.end()) return known->second == text;
  if (std::any_of(met.begin(), met.end(), [&](const auto& each) { return each.second == text; })) return false;
  met[mask] = text;
  return true;
}

}  // namespace

std::string describeMaskedValues() {
  std::string text;
  for (const MaskedValue& value : kMaskedValues) {
    std::string line = std::string("  ") + value.service + " " + (*value.name == '\0' ? "" : value.name) +
                       (*value.name == '\0' ? "" : " ") + value.path;
    line.resize(std::max<std::size_t>(line.size() + 2, 66), ' ');
    text += line + value.about + "\n";
  }
  return text;
}

Redactions::Redactions(const Json& scenario) {
  for (const char* key : {"name", "serialNumber", "customerId"}) learn(scenario.at("delegate").at(key));
}

std::string Redactions::maskOf(const std::string& value) {
  return m_masks.try_emplace(value, kMask + std::to_string(m_masks.size() + 1)).first->second;
}

void Redactions::learn(const std::string& identity) {
  if (identity.size() < kShortestIdentity || identity == "<unknown>") return;
  const auto isIt = [&](const auto& known) { return known.first == identity; };
  if (std::any_of(m_identities.begin(), m_identities.end(), isIt)) return;
  m_identities.emplace_back(identity, maskOf(identity));
}

void Redactions::apply(Json& entry) {
  const Json name = entry.contains("notification") ? entry.at("notification") : entry.at("method");
  for (const MaskedValue& row : kMaskedValues) {
    if (entry.at("service") != row.service || (*row.name != '\0' && name != row.name)) continue;
    forEachAt(entry, segmentsOf(row.path), 0, [&](Json& value) {
      if (!value.is_string() || isEmptyText(value)) return;
      auto& text = value.get_ref<std::string&>();
      if (row.kind == Kind::kSetting && isWholeNumber(text)) return;
      if (row.kind == Kind::kAccount && text == "<unknown>") return;
      if (row.kind == Kind::kIdentity || row.kind == Kind::kAccount) learn(text);
      const std::size_t colon = row.kind == Kind::kUri ? text.find(':') : std::string::npos;
      const std::string scheme = colon == std::string::npos ? "" : text.substr(0, colon + 1);
      if (scheme != "package:" && scheme.size() < text.size()) text = scheme + maskOf(text.substr(scheme.size()));
    });
  }
  // Beginnings of values that are too long to be taken apart.
  if (const auto shorter = entry.find("shortened"); shorter != entry.end()) {
    for (const Json& path : *shorter) entry[Json::json_pointer("/" + path.get<std::string>())] = "masked";
  }
  for (const char* key : {"arguments", "reply", "exception"}) {
    if (const auto value = entry.find(key); value != entry.end()) maskIdentities(*value);
  }
}

void Redactions::maskIdentities(Json& value) const {
  forEachText(value, [&](std::string& text) {
    if (findMask(text).second == text.size()) return;
    for (const auto& [identity, mask] : m_identities) {
      for (std::size_t at = 0; (at = text.find(identity, at)) != std::string::npos; at += mask.size()) {
        text.replace(at, identity.size(), mask);
      }
    }
  });
}

bool mayStandFor(const Json& recorded, const Json& given, MetTexts& met) {
  if (recorded.is_string() && given.is_string()) {
    return mayStandForText(recorded.get_ref<const std::string&>(), given.get_ref<const std::string&>(), met);
  }
  if (recorded.type() != given.type() || recorded.size() != given.size() || !recorded.is_structured()) {
    return recorded == given;
  }
  if (recorded.is_array()) {
    return std::equal(recorded.begin(), recorded.end(), given.begin(),
                      [&](const Json& one, const Json& other) { return mayStandFor(one, other, met); });
  }
  for (const auto& [key, value] : recorded.items()) {
    const auto other = given.find(key);
    if (other == given.end() || !mayStandFor(value, *other, met)) return false;
  }
  return true;
}

bool isEmptyText(const Json& value) {
  return value.is_string() && value.get_ref<const std::string&>().empty();
}

}  // namespace orvel::sim
