// What the device knows and how it misbehaves, as one JSON object: the scenario. The same object is the scenario file,
// what `orvel-sim state` prints and what the device's processes hand each other. Each service declares its own section;
// beside those there is only the text "about", for what the scenario is meant.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "device/Shape.h"
#include "device/Wire.h"

namespace orvel::sim {

// The shape of a whole scenario: a section for each service.
const Shape& scenarioShape();

// The scenario of a device that was told nothing else.
Json defaultScenario();

// Throws ScenarioError for a complete scenario whose text has more bytes than a message has room for: it goes to the
// processes of services as one, of two bytes a character.
void expectSize(std::size_t size);

// A file that can be read. Throws ScenarioError for any other, which a directory is.
std::ifstream openToRead(const std::string& file);

// Reads up to the character `end`, or EOF for all of the file; false when nothing is left. Throws ScenarioError for
// more than 64 MiB, which neither a scenario nor a line of a recording has: a file may have no end.
bool readUpTo(std::istream& stream, int end, std::string& text);

// A complete scenario out of the text of a file. Throws ScenarioError, which begins with `name`.
Json readScenario(const std::string& text, const std::string& name);
Json readScenario(std::istream& stream, const std::string& name);
Json readScenarioFile(const std::string& file);

// The change of one value, as CurrentScenario takes it, that a person means: it is removed where `value` is missing,
// but not a whole section or all entries of a map. `words` lead to it from the section or, where only one section has
// it, from the field: "delegate name", "name", "settings volume" and also "setting volume". Throws ScenarioError.
Json changeOf(const std::vector<std::string>& words, const std::optional<std::string>& value);

// The value that such words lead to; without words the whole scenario. Nothing where it is unset. Throws ScenarioError.
std::optional<Json> valueIn(const Json& scenario, const std::vector<std::string>& words);

// Where such words lead, as a JSON pointer.
std::string pathOf(const std::vector<std::string>& words);

// One line for each value that can be set, with the shape and the help text.
std::string describeScenario();

}  // namespace orvel::sim
