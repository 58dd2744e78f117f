#include "device/Recording.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "device/services/Services.h"

namespace orvel::sim {
namespace {

constexpr char kFormat[] = "orvel-recording";
constexpr int kVersion = 1;
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

std::int64_t numberAt(const Json& object, const char* key, std::int64_t least, std::int64_t most) {
  const Json& value = object.at(key);
  const Shape shape = Shape::number(least, most);
  return complete(shape, value, std::string("/") + key).get<std::int64_t>();
}

const std::string& textAt(const Json& object, const char* key) {
  complete(Shape::text(), object.at(key), std::string("/") + key);
  return object.at(key).get_ref<const std::string&>();
}

// Throws what the writer does when it is not of the right form.
void tryToWrite(void (*write)(vesk_payload*, const Json&), const Json& value, const char* where) {
  const PayloadPtr payload(vesk_payload_alloc());
  try {
    write(payload.get(), value);
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string(where) + ": " + plainText(error));
  }
}

void checkOutcome(const RecordedEntry& checked) {
  const Json& entry = checked.entry;
  constexpr const char* kOutcomes[] = {"reply", "exception", "error", "hangs", "drops"};
  const auto present = [&](const char* key) { return entry.contains(key); };
  if (std::count_if(std::begin(kOutcomes), std::end(kOutcomes), present) != 1) {
    throw std::runtime_error("expected one of reply, exception, error, hangs and drops");
  }
  if (const auto reply = entry.find("reply"); reply != entry.end()) {
    if (checked.method == nullptr) throw std::runtime_error("a reply, but no method");
    tryToWrite(checked.method->write, *reply, "/reply");
  }
  if (const auto exception = entry.find("exception"); exception != entry.end()) {
    numberAt(*exception, "code", std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
    textAt(*exception, "message");
    if (exception->contains("trace")) textAt(*exception, "trace");
  }
  for (const char* fault : {"hangs", "drops"}) {
    if (present(fault) && entry.at(fault) != true)
      throw std::runtime_error(std::string("/") + fault + ": expected true");
  }
  if (present("error")) complete(errorShape(), entry.at("error"), "/error");
  if (present("truncatedTo")) numberAt(entry, "truncatedTo", 0, std::numeric_limits<std::int32_t>::max());
  if (present("durationMs") && !entry.at("durationMs").is_number())
    throw std::runtime_error("/durationMs: not a number");
}

RecordedEntry checkEntry(Json entry, std::size_t line) {
  if (!entry.is_object()) throw std::runtime_error("expected an object");
  RecordedEntry checked = {line, &serviceCalled(textAt(entry, "service")), nullptr, nullptr, std::move(entry)};
  const Json& given = checked.entry;
  constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
  for (const char* key : {"pid", "servicePid"}) numberAt(given, key, 0, kMost);
  for (const char* key : {"timeMs", "number"}) numberAt(given, key, 0, std::numeric_limits<std::int64_t>::max() / 1000);
  if (given.contains("timeUs")) numberAt(given, "timeUs", 0, std::numeric_limits<std::int64_t>::max());
  const auto code = static_cast<unsigned>(numberAt(given, "code", 0, std::numeric_limits<std::uint32_t>::max()));
  if (given.contains("shortened")) return checked;
  if (!given.at("arguments").is_object()) throw std::runtime_error("/arguments: expected an object");
  if (given.contains("notification")) {
    const std::string& name = textAt(given, "notification");
    const auto& callbacks = checked.type->callbacks;
    const auto isIt = [&](const CallbackMethod* callback) { return callback->name == name && callback->code == code; };
    const auto found = std::find_if(callbacks.begin(), callbacks.end(), isIt);
    if (found == callbacks.end()) {
      throw std::runtime_error(checked.type->id + " has no notification called " + name + ", code " +
                               std::to_string(code));
    }
    checked.callback = *found;
    // A directive goes to the client that holds its namespace, everything else to an endpoint that a request has
    // brought.
    if (checked.type != &coordinatorService()) {
      numberAt(given, "endpoint", 0, std::numeric_limits<std::int64_t>::max());
    } else if (given.contains("endpoint")) {
      throw std::runtime_error("/endpoint: a directive has none");
    }
    tryToWrite(checked.callback->write, given.at("arguments"), "/arguments");
    return checked;
  }
  checked.method = methodWith(*checked.type, code);
  const Json& name = given.at("method");
  if (name != (checked.method == nullptr ? Json() : Json(checked.method->name))) {
    throw std::runtime_error(checked.type->id + " has no method " + name.dump() + " with the code " +
                             std::to_string(code));
  }
  if (given.contains("endpoints")) {
    complete(Shape::list(Shape::number(0, std::numeric_limits<std::int64_t>::max()), 1000), given.at("endpoints"),
             "/endpoints");
  }
  checkOutcome(checked);
  return checked;
}

void checkHeader(const Json& header) {
  if (!header.is_object() || header.value("format", Json()) != kFormat) {
    throw std::runtime_error(std::string("not a recording: expected a header with the format \"") + kFormat + "\"");
  }
  if (header.value("version", Json()) != kVersion) {
    throw std::runtime_error("a recording of version " + header.value("version", Json()).dump() +
                             "; this program knows version " + std::to_string(kVersion));
  }
  if (!header.value("masked", Json()).is_boolean()) throw std::runtime_error("/masked: expected true or false");
}

}  // namespace

Json recordingHeader(const Json& device, bool masked) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return {{"format", kFormat},
          {"version", kVersion},
          {"timeMs", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()},
          {"device", device},
          {"masked", masked}};
}

Json recordingGap(std::uint64_t after, std::uint64_t entries) {
  return {{"gap", {{"after", after}, {"entries", entries}}}};
}

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

Recording readRecording(const std::string& file) {
  std::ifstream stream(file);
  stream.peek();  // a directory opens but cannot be read
  if (stream.bad() || !stream.is_open()) throw RecordingError(file + ": cannot be read");
  Recording recording = {file, false, {}, {}};
  std::size_t number = 0;
  for (std::string text;;) {
    const std::string where = file + ":" + std::to_string(++number) + ": ";
    try {
      if (!readUpTo(stream, '\n', text)) break;
      Json line = parseMessage(text);
      if (number == 1) {
        checkHeader(line);
        recording.masked = line.at("masked");
      } else if (line.contains("gap")) {
        recording.warnings.push_back(where + line.at("gap").at("entries").dump() + " entries are missing");
      } else {
        RecordedEntry checked = checkEntry(std::move(line), number);
        if (checked.entry.contains("shortened")) {
          recording.warnings.push_back(where + "was shortened before the recording began, and is left out");
        } else if (checked.callback == nullptr || !checked.entry.contains("error")) {
          recording.entries.push_back(std::move(checked));
        }
      }
    } catch (const std::exception& error) {
      throw RecordingError(where + plainText(error));
    }
  }
  if (number == 1) throw RecordingError(file + ":1: not a recording: the file is empty");
  return recording;
}

}  // namespace orvel::sim
