#include "device/Scenario.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <istream>
#include <utility>

#include "device/Service.h"

namespace orvel::sim {
namespace {

// A service that dies and comes back: dead for the second half of every period.
Shape flapShape() {
  constexpr std::int64_t kLeastPeriodMs = 10;
  return Shape::object({
      {"periodMs", Shape::number(kLeastPeriodMs), 10'000, "from one death to the next"},
      {"count", Shape::number(1), std::nullopt, "how many deaths are left; without it, there is no end"},
  });
}

// A map is also known by the name of one of its entries: "setting" for "settings", "process" for "processes".
bool isCalled(const Field& field, const std::string& word) {
  const bool isEntry = field.key == word + "s" || field.key == word + "es";
  return field.key == word || (field.shape.kind == Shape::Kind::kMap && isEntry);
}

const Field* findField(const Shape& object, const std::string& word) {
  const auto* const found = std::find_if(object.fields.begin(), object.fields.end(),
                                         [&](const Field& field) { return isCalled(field, word); });
  return found == object.fields.end() ? nullptr : found;
}

// The section that alone has a field of that name. Throws ScenarioError.
const Field& sectionWith(const std::string& word) {
  std::vector<std::string> names;
  std::vector<std::string> known;
  const Field* last = nullptr;
  for (const Field& section : scenarioShape().fields) {
    known.push_back(section.key);
    for (const Field& field : section.shape.fields) known.push_back(field.key);
    if (findField(section.shape, word) == nullptr) continue;
    names.push_back(section.key);
    last = &section;
  }
  if (last == nullptr) {
    throw ScenarioError("no value is called '" + word + "'; orvel-sim get --help lists them", word, known);
  }
  if (names.size() > 1) throw ScenarioError(word + " is a field of several services, say of which: " + joined(names));
  return *last;
}

struct Place {
  Json::json_pointer path;
  const Shape* shape = nullptr;
};

[[noreturn]] void failAtKey(const std::string& where, const std::string& word, const Shape& object) {
  std::vector<std::string> known;
  for (const Field& field : object.fields) known.push_back(field.key);
  throw ScenarioError(where + ": unknown key '" + word + "'; there are " + joined(known), word, known);
}

// For words behind a value that has no parts: they are one text that was not quoted, where the last is to be the value.
[[noreturn]] void failBehind(const std::string& where, const std::vector<std::string>& rest, bool isSet) {
  if (!isSet) throw ScenarioError(where + " is one value and has no '" + rest.front() + "'");
  throw ScenarioError(where + " takes one value; quote it: \"" + joined(rest, " ") + "\"");
}

// The value, if any, is for the error alone.
Place placeOf(const std::vector<std::string>& words, const std::optional<std::string>& value = std::nullopt) {
  const Shape* shape = &scenarioShape();
  Json::json_pointer path;
  std::string where;  // the words that have led so far
  if (findField(*shape, words.front()) == nullptr) {
    const Field& section = sectionWith(words.front());
    path /= section.key;
    shape = &section.shape;
  }
  for (auto word = words.begin(); word != words.end(); ++word) {
    if (shape->kind == Shape::Kind::kObject) {
      const Field* field = findField(*shape, *word);
      if (field == nullptr) failAtKey(where, *word, *shape);
      path /= field->key;
      shape = &field->shape;
    } else if (shape->kind == Shape::Kind::kMap) {
      path /= *word;
      expectKey(shape->element.back(), *word, where + " " + *word);
      shape = &shape->element.front();
    } else {
      std::vector<std::string> rest(word, words.end());
      if (value) rest.push_back(*value);
      failBehind(where, rest, value.has_value());
    }
    where += (where.empty() ? "" : " ") + *word;
  }
  return {path, shape};
}

Json completeScenario(const Json& scenario) {
  Json whole = complete(scenarioShape(), scenario);
  expectSize(whole.dump(-1, ' ', false, Json::error_handler_t::replace).size());
  return whole;
}

}  // namespace

const Shape& scenarioShape() {
  // Never destroyed: that would take a twentieth of a short run.
  static const Shape& shape = *new Shape([] {
    std::vector<Field> sections = {{kAbout, Shape::text(), std::nullopt, "what the scenario is for"}};
    for (const ServiceType* type : allServices()) {
      std::vector<Field> fields = type->fields;
      fields.push_back({kFaults, faultsShape(*type), Json::object(), "how calls of the service fail"});
      fields.push_back({kAlive, Shape::flag(), true, "whether the service runs"});
      fields.push_back({kFlap, flapShape(), std::nullopt, "how the service dies and comes back by itself"});
      sections.push_back({type->id, Shape::object(std::move(fields)), Json::object(), type->summary});
    }
    return Shape::object(std::move(sections));
  }());
  return shape;
}

void expectSize(std::size_t size) {
  constexpr std::size_t kMost = 4'000'000;
  if (size <= kMost) return;
  throw ScenarioError("the scenario is too large: complete, it has " + std::to_string(size) + " bytes of at most " +
                      std::to_string(kMost));
}

// Not measured, as those of others are: it has been small enough at every start of a device, of which many are short.
Json defaultScenario() {
  return complete(scenarioShape(), Json::object());
}

std::ifstream openToRead(const std::string& file) {
  std::ifstream stream(file);
  stream.peek();  // a directory opens but cannot be read
  if (stream.bad() || !stream.is_open()) throw ScenarioError(file + ": cannot be read");
  stream.clear();  // an empty one has ended
  return stream;
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
    Json scenario = Json::parse(text);
    if (scenario.is_object() && scenario.contains("$schema")) {  // where editors find it
      complete(Shape::text(), scenario.at("$schema"), "/$schema");
      scenario.erase("$schema");
    }
    return completeScenario(scenario);
  } catch (const ScenarioError& error) {
    throw ScenarioError(name + ": " + error.what());
  } catch (const Json::exception& error) {  // a number beyond every double is not a parse_error
    throw ScenarioError(name + ": " + plainText(error));
  }
}

Json readScenario(std::istream& stream, const std::string& name) {
  std::string text;
  try {
    readUpTo(stream, EOF, text);
  } catch (const ScenarioError& error) {
    throw ScenarioError(name + ": " + error.what());
  }
  return readScenario(text, name);
}

Json readScenarioFile(const std::string& file) {
  std::ifstream stream = openToRead(file);
  return readScenario(stream, file);
}

Json changeOf(const std::vector<std::string>& words, const std::optional<std::string>& value) {
  const Place place = placeOf(words, value);
  const std::string where = joined(words, " ");
  const bool hasParts = place.shape->kind == Shape::Kind::kObject || place.shape->kind == Shape::Kind::kMap;
  Json change = {{"path", place.path.to_string()}};
  if (value) {
    if (hasParts && value->find_first_of("{[") != 0) {
      throw ScenarioError("a VALUE is missing behind '" + where + " " + *value + "'");
    }
    change["value"] = valueOf(*place.shape, *value, where);
  } else if (const bool isMap = place.shape->kind == Shape::Kind::kMap; isMap || (hasParts && words.size() == 1)) {
    throw ScenarioError(where + ": a " + (isMap ? "KEY" : "FIELD") + " is missing, of what is to be removed");
  }
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
