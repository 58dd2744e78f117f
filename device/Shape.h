// Which JSON values the fields of a scenario accept, and what is said of those that they do not.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

struct Field;

// The fields of an object, which copies of its shape share: there are thousands, and every start makes them.
class Fields {
 public:
  Fields() = default;
  explicit Fields(std::vector<Field> fields);

  const Field* begin() const;
  const Field* end() const;

 private:
  std::shared_ptr<const std::vector<Field>> m_fields;  // null: none
};

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
  Fields fields;                        // kObject
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
  // For a word that nothing is called: the program that shows the error says which of the known ones is most like it.
  ScenarioError(const std::string& what, std::string unknownWord, std::vector<std::string> knownWords)
      : std::runtime_error(what), word(std::move(unknownWord)), known(std::move(knownWords)) {}

  std::string word;
  std::vector<std::string> known;
};

// The value with the initial values of the keys that it leaves out; throws ScenarioError. `path` is where the value
// stands.
Json complete(const Shape& shape, const Json& value, const std::string& path = {});

// The shape of a code with which vesk fails a call.
Shape errorShape();

// The field with that key. Throws ScenarioError, which lists what there is; `path` is where the object stands.
const Field& fieldOf(const Shape& object, const std::string& key, const std::string& path);

// "screenOn, interfaceVersion".
std::string keysOf(const Shape& object);

// Throws ScenarioError for what is not a key of a map with keys of that shape; `path` is where the key stands.
void expectKey(const Shape& shape, const std::string& key, const std::string& path);

// The value that a word stands for: as it is for a text, as JSON for everything else; what may be a text or a number is
// a text where it is neither a number nor a quoted text. Throws ScenarioError.
Json valueOf(const Shape& shape, const std::string& word, const std::string& path);

// What stands for such a value in a help text: "true|false".
std::string wordOf(const Shape& shape);

std::string joined(const std::vector<std::string>& words, const char* separator = ", ");

}  // namespace orvel::sim
