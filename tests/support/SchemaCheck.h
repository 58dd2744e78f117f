// Checks JSON against a schema, for the few keywords that the project's schemas use.
#pragma once

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>

namespace orvel::testing {

// What is wrong with `value`; empty when nothing is. `schema` is a part of `root`. Throws std::runtime_error for a
// keyword that is not known here: it would be a promise that is not checked.
inline std::string whatViolates(const nlohmann::json& root, const nlohmann::json& schema, const nlohmann::json& value) {
  static const std::set<std::string> said = {"$schema", "$id", "$defs", "title", "description"};
  for (const auto& [keyword, rule] : schema.items()) {
    bool good = true;
    std::string wrong;
    if (keyword == "$ref") {
      const nlohmann::json::json_pointer part(rule.get<std::string>().substr(1));  // behind the '#'
      wrong = whatViolates(root, root.at(part), value);
    } else if (keyword == "type") {
      good = rule == (value.is_number_integer() ? "integer" : value.type_name());
    } else if (keyword == "enum") {
      good = std::find(rule.begin(), rule.end(), value) != rule.end();
    } else if (keyword == "minimum" || keyword == "maximum") {
      good = keyword == "minimum" ? value >= rule : value <= rule;
    } else if (keyword == "minLength" || keyword == "minItems") {
      const std::size_t size = value.is_string() ? value.get_ref<const std::string&>().size() : value.size();
      good = size >= rule.get<std::size_t>();
    } else if (keyword == "items") {
      for (const auto& item : value) wrong += whatViolates(root, rule, item);
    } else if (keyword == "required") {
      for (const auto& key : rule) good = good && value.contains(key.get<std::string>());
    } else if (keyword == "properties") {
      for (const auto& [key, part] : rule.items()) {
        if (value.contains(key)) wrong += whatViolates(root, part, value[key]);
      }
    } else if (keyword == "additionalProperties" && rule == false) {
      for (const auto& [key, ignored] : value.items()) good = good && schema.at("properties").contains(key);
    } else if (said.count(keyword) == 0) {
      throw std::runtime_error("the schema says " + keyword + ", which is not checked");
    }
    if (!good) wrong = value.dump() + " is against " + keyword + " " + rule.dump();
    if (!wrong.empty()) return wrong;
  }
  return {};
}

}  // namespace orvel::testing
