#include "device/Scenario.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <istream>
#include <utility>

#include "device/Acts.h"
#include "device/Service.h"

namespace orvel::sim {
namespace {

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

std::string nameOf(const Shape& shape) {
  switch (shape.kind) {
    case Shape::Kind::kText:
      return "a string";
    case Shape::Kind::kChoice:
      return "one of " + joined(shape.words, ", ");
    case Shape::Kind::kFlag:
      return "true or false";
    case Shape::Kind::kNumber:
      return "a whole number from " + std::to_string(shape.least) + " to " + std::to_string(shape.most);
    case Shape::Kind::kTextOrNumber:
      return "a string or a whole number from " + std::to_string(shape.least) + " to " + std::to_string(shape.most);
    case Shape::Kind::kFlagOrNumber:
      return "true, false or a whole number from " + std::to_string(shape.least) + " to " + std::to_string(shape.most);
    case Shape::Kind::kObject:
    case Shape::Kind::kMap:
      return "an object";
    case Shape::Kind::kList:
      return "a list of at most " + std::to_string(shape.most) + " elements";
  }
  return {};
}

bool isNumber(const Shape& shape, const Json& value) {
  if (value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX) return false;
  return value.is_number_integer() && value.get<std::int64_t>() >= shape.least &&
         value.get<std::int64_t>() <= shape.most;
}

bool accepts(const Shape& shape, const Json& value) {
  switch (shape.kind) {
    case Shape::Kind::kText:
      return value.is_string();
    case Shape::Kind::kChoice:
      return std::find(shape.words.begin(), shape.words.end(), value) != shape.words.end();
    case Shape::Kind::kFlag:
      return value.is_boolean();
    case Shape::Kind::kNumber:
      return isNumber(shape, value);
    case Shape::Kind::kTextOrNumber:
      return value.is_string() || isNumber(shape, value);
    case Shape::Kind::kFlagOrNumber:
      return value.is_boolean() || isNumber(shape, value);
    case Shape::Kind::kObject:
    case Shape::Kind::kMap:
      return value.is_object();
    case Shape::Kind::kList:
      return value.is_array() && value.size() <= static_cast<std::size_t>(shape.most);
  }
  return false;
}

std::string keysOf(const Shape& object) {
  std::string keys;
  for (const Field& field : object.fields) keys += (keys.empty() ? "" : ", ") + field.key;
  return keys;
}

[[noreturn]] void failAt(const std::string& path, const std::string& what) {
  throw ScenarioError((path.empty() ? "/" : path) + ": " + what);
}

Json completeObject(const Shape& shape, const Json& value, const std::string& path) {
  for (const auto& [key, ignored] : value.items()) {
    const auto known = [&, &wanted = key](const Field& field) { return field.key == wanted; };
    if (std::none_of(shape.fields.begin(), shape.fields.end(), known)) {
      failAt(path + "/" + key, "unknown key; there are " + keysOf(shape));
    }
  }
  Json whole = Json::object();
  for (const Field& field : shape.fields) {
    if (const auto given = value.find(field.key); given != value.end()) {
      whole[field.key] = complete(field.shape, *given, path + "/" + field.key);
    } else if (field.initial) {
      whole[field.key] = complete(field.shape, *field.initial, path + "/" + field.key);
    }
  }
  return whole;
}

// The wire's strings are written from C strings.
void expectNoNul(const std::string& text, const std::string& path) {
  if (text.find('\0') != std::string::npos) failAt(path, "holds a NUL character");
}

// Only the one way to write a number: others would be entries that nothing finds.
void expectKey(const Shape& shape, const std::string& key, const std::string& path) {
  expectNoNul(key, path);
  if (shape.kind == Shape::Kind::kText) return;
  const Json number = Json::parse(key, nullptr, /*allow_exceptions=*/false);
  if (number.is_discarded() || !accepts(shape, number) || number.dump() != key) {
    failAt(path, "expected a key that is " + nameOf(shape));
  }
}

Json completeMap(const Shape& shape, const Json& value, const std::string& path) {
  Json whole = Json::object();
  // The keys are known to differ. Assigning them one by one would look for each among all before.
  Json::object_t::Container& entries = whole.get_ref<Json::object_t&>();
  entries.reserve(value.size());
  for (const auto& [key, element] : value.items()) {
    const std::string elementPath = path + "/" + key;
    expectKey(shape.element.back(), key, elementPath);
    entries.emplace_back(key, complete(shape.element.front(), element, elementPath));
  }
  return whole;
}

// No reply but an error, one with an exception, cut short, late, or none at all, with or without the connection.
Shape faultShape() {
  return Shape::object({
      {"exception",
       Shape::object({
           {"code", Shape::number(), kIllegalStateException, "exception code"},
           {"message", Shape::text(), "told to fail by orvel-sim", "what the exception says"},
           {"trace", Shape::text(), "", "stack trace; none is sent when empty"},
       }),
       std::nullopt, "answer with an exception"},
      {"error", errorShape(), std::nullopt, "let the call fail"},
      {"truncateTo", Shape::number(0), std::nullopt, "send only the first bytes of the reply"},
      {"delayMs", Shape::number(0), std::nullopt, "answer late"},
      {"hang", Shape::flag(), std::nullopt, "never answer"},
      {"drop", Shape::flagOrNumber(1), std::nullopt, "close the connection of the next so many callers, or of all"},
  });
}

// The faults of a service: for each of its methods, or under "*" for those that have none of their own.
Shape faultsShape(const ServiceType& type) {
  std::vector<Field> methods = {{kEveryMethod, faultShape(), std::nullopt, "every other method"}};
  for (const Method& method : type.methods) methods.push_back({method.name, faultShape(), std::nullopt, {}});
  return Shape::object(std::move(methods));
}

// A service that dies and comes back: dead for the second half of every period.
Shape flapShape() {
  constexpr std::int64_t kLeastPeriodMs = 10;
  return Shape::object({
      {"periodMs", Shape::number(kLeastPeriodMs), 10'000, "from one death to the next"},
      {"count", Shape::number(1), std::nullopt, "how many deaths are left; without it, there is no end"},
  });
}

std::string wordOf(const Shape& shape) {
  switch (shape.kind) {
    case Shape::Kind::kText:
      return "TEXT";
    case Shape::Kind::kChoice:
      return joined(shape.words, "|");
    case Shape::Kind::kFlag:
      return "true|false";
    case Shape::Kind::kNumber:
      return "NUMBER";
    case Shape::Kind::kTextOrNumber:
      return "TEXT|NUMBER";
    case Shape::Kind::kFlagOrNumber:
      return "true|false|NUMBER";
    case Shape::Kind::kMap:
      return "KEY " + wordOf(shape.element.front());
    case Shape::Kind::kObject:
    case Shape::Kind::kList:
      return "JSON";
  }
  return {};
}

// A map is also known by the name of one of its entries: "setting" for "settings", "process" for "processes".
bool isCalled(const Field& field, const std::string& word) {
  const bool isEntry = field.key == word + "s" || field.key == word + "es";
  return field.key == word || (field.shape.kind == Shape::Kind::kMap && isEntry);
}

const Field* findField(const Shape& object, const std::string& word) {
  const auto found = std::find_if(object.fields.begin(), object.fields.end(),
                                  [&](const Field& field) { return isCalled(field, word); });
  return found == object.fields.end() ? nullptr : &*found;
}

// The section that alone has a field of that name. Throws ScenarioError.
const Field& sectionWith(const std::string& word) {
  std::vector<std::string> names;
  const Field* last = nullptr;
  for (const Field& section : scenarioShape().fields) {
    if (findField(section.shape, word) == nullptr) continue;
    names.push_back(section.key);
    last = &section;
  }
  if (names.empty()) throw ScenarioError("no value is called " + word + "; there are\n" + describeScenario());
  if (names.size() > 1)
    throw ScenarioError(word + " is a field of several services, say of which: " + joined(names, ", "));
  return *last;
}

// Makes the objects that lead there. The pointer's own way would make a list where a key is a number.
Json& valueAt(Json& scenario, const Json::json_pointer& path) {
  if (path.empty()) return scenario;
  Json& parent = valueAt(scenario, path.parent_pointer());
  if (!parent.is_object()) parent = Json::object();
  return parent[path.back()];
}

void erase(Json& scenario, const Json::json_pointer& path) {
  const Json::json_pointer parent = path.parent_pointer();
  scenario[parent].erase(path.back());
  // A method of which the last fault has ended has none.
  if (scenario[parent].empty() && parent.parent_pointer().back() == kFaults) erase(scenario, parent);
}

Json completeScenario(const Json& scenario) {
  // It goes to the processes of services as one message, of two bytes a character.
  constexpr std::size_t kMost = 4'000'000;
  Json whole = complete(scenarioShape(), scenario);
  const std::size_t size = whole.dump(-1, ' ', false, Json::error_handler_t::replace).size();
  if (size > kMost) {
    throw ScenarioError("the scenario is too large: complete, it has " + std::to_string(size) + " bytes of at most " +
                        std::to_string(kMost));
  }
  return whole;
}

}  // namespace

Shape Shape::choice(std::vector<std::string> words) {
  return {Kind::kChoice, {}, {}, 0, 0, std::move(words)};
}
Shape Shape::object(std::vector<Field> fields) {
  return {Kind::kObject, std::move(fields), {}, 0, 0};
}
Shape Shape::map(Shape element, Shape key) {
  return {Kind::kMap, {}, {std::move(element), std::move(key)}, 0, 0};
}
Shape Shape::list(Shape element, std::int64_t most) {
  return {Kind::kList, {}, {std::move(element)}, 0, most};
}

// An errno value, negated.
Shape errorShape() {
  return Shape::number(-4095, -1);
}

Json complete(const Shape& shape, const Json& value, const std::string& path) {
  if (!accepts(shape, value)) failAt(path, "expected " + nameOf(shape));
  switch (shape.kind) {
    case Shape::Kind::kText:
    case Shape::Kind::kTextOrNumber:
      if (value.is_string()) expectNoNul(value.get_ref<const std::string&>(), path);
      return value;
    case Shape::Kind::kChoice:
    case Shape::Kind::kFlag:
    case Shape::Kind::kNumber:
    case Shape::Kind::kFlagOrNumber:
      return value;
    case Shape::Kind::kObject:
      return completeObject(shape, value, path);
    case Shape::Kind::kMap:
      return completeMap(shape, value, path);
    case Shape::Kind::kList: {
      Json whole = Json::array();
      for (std::size_t i = 0; i < value.size(); ++i) {
        whole.push_back(complete(shape.element.front(), value[i], path + "/" + std::to_string(i)));
      }
      return whole;
    }
  }
  return {};
}

const Shape& scenarioShape() {
  static const Shape shape = [] {
    std::vector<Field> sections = {{kAbout, Shape::text(), std::nullopt, "what the scenario is for"}};
    for (const ServiceType* type : allServices()) {
      std::vector<Field> fields = type->fields;
      fields.push_back({kFaults, faultsShape(*type), Json::object(), "how calls of the service fail"});
      fields.push_back({kAlive, Shape::flag(), true, "whether the service runs"});
      fields.push_back({kFlap, flapShape(), std::nullopt, "how the service dies and comes back by itself"});
      sections.push_back({type->id, Shape::object(std::move(fields)), Json::object(), type->summary});
    }
    return Shape::object(std::move(sections));
  }();
  return shape;
}

Json defaultScenario() {
  return completeScenario(Json::object());
}

bool readUpTo(std::istream& stream, int end, std::string& text) {
  constexpr std::size_t kMostMiB = 64;
  text.clear();
  std::streambuf& buffer = *stream.rdbuf();
  int character = buffer.sbumpc();
  const bool found = character != EOF;
  for (; character != EOF && character != end; character = buffer.sbumpc()) {
    if (text.size() == kMostMiB << 20) throw ScenarioError("longer than " + std::to_string(kMostMiB) + " MiB");
    text += static_cast<char>(character);
  }
  return found;
}

Json readScenario(const std::string& text, const std::string& name) {
  try {
    return completeScenario(Json::parse(text));
  } catch (const ScenarioError& error) {
    throw ScenarioError(name + ": " + error.what());
  } catch (const Json::exception& error) {  // a number beyond every double is no parse_error
    throw ScenarioError(name + ": " + plainText(error));
  }
}

Json readScenarioFile(const std::string& file) {
  std::ifstream stream(file);
  stream.peek();  // a directory opens but cannot be read
  if (stream.bad() || !stream.is_open()) throw ScenarioError(file + ": cannot be read");
  std::string text;
  try {
    readUpTo(stream, EOF, text);
  } catch (const ScenarioError& error) {
    throw ScenarioError(file + ": " + error.what());
  }
  return readScenario(text, file);
}

Json valueOf(const Shape& shape, const std::string& word, const std::string& path) {
  if (shape.kind == Shape::Kind::kText) return word;
  Json value = shape.kind == Shape::Kind::kChoice ? Json(word) : Json::parse(word, nullptr, /*allow_exceptions=*/false);
  if (shape.kind == Shape::Kind::kTextOrNumber && !value.is_string() && !value.is_number_integer()) return word;
  if (value.is_discarded()) failAt(path, "expected " + nameOf(shape));
  complete(shape, value, path);
  return value;
}

namespace {

struct Place {
  Json::json_pointer path;
  const Shape* shape = nullptr;
};

Place placeOf(const std::vector<std::string>& words) {
  const Shape* shape = &scenarioShape();
  Json::json_pointer path;
  if (findField(*shape, words.front()) == nullptr) {
    const Field& section = sectionWith(words.front());
    path /= section.key;
    shape = &section.shape;
  }
  for (const std::string& word : words) {
    if (shape->kind == Shape::Kind::kObject) {
      const Field* field = findField(*shape, word);
      if (field == nullptr) failAt((path / word).to_string(), "unknown key; there are " + keysOf(*shape));
      path /= field->key;
      shape = &field->shape;
    } else if (shape->kind == Shape::Kind::kMap) {
      path /= word;
      expectKey(shape->element.back(), word, path.to_string());
      shape = &shape->element.front();
    } else {
      failAt((path / word).to_string(), "only an object has keys");
    }
  }
  return {path, shape};
}

}  // namespace

Json changeOf(const std::vector<std::string>& words, const std::optional<std::string>& value) {
  const Place place = placeOf(words);
  Json change = {{"path", place.path.to_string()}};
  if (value) change["value"] = valueOf(*place.shape, *value, place.path.to_string());
  return change;
}

std::optional<Json> valueIn(const Json& scenario, const std::vector<std::string>& words) {
  if (words.empty()) return scenario;
  const Place place = placeOf(words);
  if (!scenario.contains(place.path)) return std::nullopt;
  return scenario.at(place.path);
}

std::string pathOf(const std::vector<std::string>& words) {
  return placeOf(words).path.to_string();
}

Json changed(Json scenario, const Json& change) {
  if (change.contains("act")) {
    perform(scenario, change);
  } else {
    const Json::json_pointer path(change.at("path").get<std::string>());
    if (path.empty()) throw ScenarioError("a change of the whole scenario");
    if (const auto value = change.find("value"); value != change.end()) {
      valueAt(scenario, path) = *value;
    } else if (scenario.contains(path)) {
      erase(scenario, path);
    }
  }
  return completeScenario(scenario);
}

void forEachDifference(const Json& was, const Json& is, const TellDifference& tell) {
  if (was == is) return;
  for (const auto& [key, value] : is.items()) {
    const auto before = was.find(key);
    if (before == was.end()) {
      tell(key, {}, value);
    } else if (*before != value) {
      tell(key, *before, value);
    }
  }
  for (const auto& [key, value] : was.items()) {
    if (!is.contains(key)) tell(key, value, {});
  }
}

std::string describeScenario() {
  std::string text;
  const auto describe = [&](const std::string& words, const Field& field) {
    std::string line = "  " + words + " " + wordOf(field.shape);
    line.resize(std::max<std::size_t>(line.size() + 2, 42), ' ');
    text += line + field.help + "\n";
  };
  for (const Field& section : scenarioShape().fields) {
    if (section.shape.kind != Shape::Kind::kObject) describe(section.key, section);
    for (const Field& field : section.shape.fields) describe(section.key + " " + field.key, field);
  }
  return text;
}

}  // namespace orvel::sim
