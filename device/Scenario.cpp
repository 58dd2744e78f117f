#include "device/Scenario.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <istream>
#include <utility>

#include "device/Service.h"

namespace orvel::sim {
namespace {

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
  if (last == nullptr) throw ScenarioError("no value is called " + word + "; there are\n" + describeScenario());
  if (names.size() > 1) throw ScenarioError(word + " is a field of several services, say of which: " + joined(names));
  return *last;
}

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
      if (field == nullptr)
        throw ScenarioError((path / word).to_string() + ": unknown key; there are " + keysOf(*shape));
      path /= field->key;
      shape = &field->shape;
    } else if (shape->kind == Shape::Kind::kMap) {
      path /= word;
      expectKey(shape->element.back(), word, path.to_string());
      shape = &shape->element.front();
    } else {
      throw ScenarioError((path / word).to_string() + ": only an object has keys");
    }
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

void expectSize(std::size_t size) {
  constexpr std::size_t kMost = 4'000'000;
  if (size <= kMost) return;
  throw ScenarioError("the scenario is too large: complete, it has " + std::to_string(size) + " bytes of at most " +
                      std::to_string(kMost));
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
  } catch (const Json::exception& error) {  // a number beyond every double is not a parse_error
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
