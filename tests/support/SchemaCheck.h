// Checks JSON against a schema, for the few keywords that the project's schemas use.
#pragma once

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>

namespace orvel::testing {

// What is wrong with `value`, with its path; empty when nothing is. `schema` is a part of `root`. Throws
// std::runtime_error for a keyword that is not known here: it would be a promise that is not checked.
inline std::string whatViolates(const nlohmann::json& root, const nlohmann::json& schema, const nlohmann::json& value,
                                const std::string& path = "") {
  static const std::set<std::string> said = {"$schema", "$id", "$defs", "title", "description"};
  for (const auto& [keyword, rule] : schema.items()) {
    bool good = true;
    if (keyword == "$ref") {
      const auto& part = root.at(nlohmann::json::json_pointer(rule.get<std::string>().substr(1)));  // behind the '#'
      if (std::string wrong = whatViolates(root, part, value, path); !wrong.empty()) return wrong;
    } else if (keyword == "type") {
      const std::string type = value.is_number_integer() ? "integer" : value.type_name();
      good = type == rule;
    } else if (keyword == "enum") {
      good = std::find(rule.begin(), rule.end(), value) != rule.end();
    } else if (keyword == "minimum") {
      good = value >= rule;
    } else if (keyword == "maximum") {
      good = value <= rule;
    } else if (keyword == "minLength") {
      good = value.get_ref<const std::string&>().size() >= rule.get<std::size_t>();
    } else if (keyword == "minItems") {
      good = value.size() >= rule.get<std::size_t>();
    } else if (keyword == "items") {
      for (std::size_t n = 0; n < value.size(); ++n) {
        const std::string at = path + "/" + std::to_string(n);
        if (std::string wrong = whatViolates(root, rule, value[n], at); !wrong.empty()) return wrong;
      }
    } else if (keyword == "required") {
      for (const auto& key : rule) good = good && value.contains(key.get<std::string>());
    } else if (keyword == "properties") {
      for (const auto& [key, part] : rule.items()) {
        if (!value.contains(key)) continue;
        if (std::string wrong = whatViolates(root, part, value[key], path + "/" + key); !wrong.empty()) return wrong;
      }
    } else if (keyword == "additionalProperties" && rule == false) {
      for (const auto& [key, ignored] : value.items()) good = good && schema.at("properties").contains(key);
    } else if (said.count(keyword) == 0) {
      throw std::runtime_error("the schema says " + keyword + ", which is not checked");
    }
    if (!good) return path + ": " + value.dump() + " is against " + keyword + " " + rule.dump();
  }
  return {};
}

}  // namespace orvel::testing
