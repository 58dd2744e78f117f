#include "tools/orvel-sim/verbs/Reading.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "device/Scenario.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"

namespace orvel::sim {

void show(const Reading& reading, bool json) {
  const auto line = [&](const Json& value) { print(json ? cli::jsonText(value) : reading.inWords(value)); };
  const Json value = reading.read();
  if (!value.is_array()) return line(value);
  for (const Json& element : value) line(element);
}

void addReading(CLI::App& verb, Reading reading, std::function<void()> set) {
  const auto json = std::make_shared<bool>(false);
  const CLI::Option* jsonFlag = verb.add_flag("--json", *json, "show what is in force as JSON");
  verb.callback([&verb, jsonFlag, json, reading = std::move(reading), set = std::move(set)] {
    const auto isGiven = [&](const CLI::Option* option) { return option != jsonFlag && option->count() != 0; };
    if (!verb.get_subcommands().empty()) return;
    if (verb.get_options(isGiven).empty()) return show(reading, *json || isJson());
    if (set) set();
  });
}

Json inForce(const std::vector<std::string>& words) {
  std::optional<Json> value = valueIn(ask("scenario").at("scenario"), words);
  if (!value) throw std::runtime_error(joined(words, " ") + " is not set");
  return *std::move(value);
}

Json entriesInForce(const std::vector<std::string>& words, const char* name) {
  Json entries = Json::array();
  const Json map = inForce(words);
  for (const auto& [key, value] : map.items()) {
    Json entry = {{name, key}};
    entry.update(value);
    entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace orvel::sim
