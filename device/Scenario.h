// What the device knows and how it misbehaves, as one JSON object: the scenario. The same object is the scenario file,
// what `orvel-sim state` prints and what the device's processes hand each other. Each service declares its own section;
// beside those there is only the text "about", for what the scenario is meant.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

struct Field;

// Which JSON values a field accepts.
struct Shape {
  enum class Kind { kText, kChoice, kFlag, kNumber, kTextOrNumber, kFlagOrNumber, kObject, kMap, kList };

  static Shape text() { return {Kind::kText, {}, {}, 0, 0}; }
  static Shape choice(std::vector<std::string> words);  // one of these texts
  static Shape flag() { return {Kind::kFlag, {}, {}, 0, 0}; }
  static Shape number(std::int64_t least = std::numeric_limits<std::int32_t>::min(),
                      std::int64_t most = std::numeric_limits<std::int32_t>::max()) {
    return {Kind::kNumber, {}, {}, least, most};
  }
  static Shape textOrNumber() { return {Kind::kTextOrNumber, {}, {}, number().least, number().most}; }
  static Shape flagOrNumber(std::int64_t least) { return {Kind::kFlagOrNumber, {}, {}, least, number().most}; }
  static Shape object(std::vector<Field> fields);       // exactly these keys
  static Shape map(Shape element, Shape key = text());  // any keys that are texts or, written in decimal, numbers
  static Shape list(Shape element, std::int64_t most);  // at most that many elements

  Kind kind;
  std::vector<Field> fields;            // kObject
  std::vector<Shape> element;           // kMap, kList: one; kMap: a second for the keys
  std::int64_t least;                   // of numbers
  std::int64_t most;                    // of numbers, and of the elements of a kList
  std::vector<std::string> words = {};  // kChoice
};

// A key of an object. One without an initial value may be absent.
struct Field {
  std::string key;
  Shape shape;
  std::optional<Json> initial;
  std::string help;
};

// Says where in the scenario something is wrong, and what: "/delegate/settings/foo: expected a string".
struct ScenarioError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The value with the initial values of the keys that it leaves out; throws ScenarioError. `path` is where the value
// stands.
Json complete(const Shape& shape, const Json& value, const std::string& path = {});

// The shape of a code with which vesk fails a call.
Shape errorShape();

// The shape of a whole scenario: a section for each service.
const Shape& scenarioShape();

// The scenario of a device that was told nothing else.
Json defaultScenario();

// Reads up to the character `end`, or EOF for all of the file; false when nothing is left. Throws ScenarioError for more
// than 64 MiB, which neither a scenario nor a line of a recording has: a file may have no end.
bool readUpTo(std::istream& stream, int end, std::string& text);

// A complete scenario out of the text of a file. Throws ScenarioError, which begins with `name`.
Json readScenario(const std::string& text, const std::string& name);
Json readScenarioFile(const std::string& file);

// The value that a word stands for: as it is for a text, as JSON for everything else; what may be a text or a number is
// a text where it is neither a number nor a quoted text. Throws ScenarioError.
Json valueOf(const Shape& shape, const std::string& word, const std::string& path);

// A change of one value: {"path": JSON pointer, "value": what it becomes}; without "value" the key is removed. Or an
// act, which changes several: see Acts.h.
//
// changeOf makes the one that a person means. `words` lead to the value from the section or, where only one section has
// it, from the field: "delegate name", "name", "settings volume" and also "setting volume". Throws ScenarioError.
Json changeOf(const std::vector<std::string>& words, const std::optional<std::string>& value);

// The value that such words lead to; without words the whole scenario. Nothing where it is unset. Throws ScenarioError.
std::optional<Json> valueIn(const Json& scenario, const std::vector<std::string>& words);

// Where such words lead, as a JSON pointer.
std::string pathOf(const std::vector<std::string>& words);

// The complete scenario after the change; throws ScenarioError, or what the act throws.
Json changed(Json scenario, const Json& change);

// Calls `tell` for each entry of a map that is not as it was, with null for what it was or is where it is missing: in
// the map's order, and then for those that are gone.
using TellDifference = std::function<void(const std::string& key, const Json& was, const Json& is)>;
void forEachDifference(const Json& was, const Json& is, const TellDifference& tell);

// One line for each value that can be set, with the shape and the help text.
std::string describeScenario();

}  // namespace orvel::sim
