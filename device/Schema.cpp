#include "device/Schema.h"

#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "device/Scenario.h"
#include "device/Shape.h"

namespace orvel::sim {
namespace {

Json schemaOfNumber(Json types, const Shape& shape) {
  return {{"type", std::move(types)}, {"minimum", shape.least}, {"maximum", shape.most}};
}

Json orNumber(const char* other) {
  return Json::array({other, "integer"});
}

// Larger objects stand once among the definitions: each method has much the same faults.
class Schema {
 public:
  Json of(const Shape& shape) {
    switch (shape.kind) {
      case Shape::Kind::kText:
        return {{"type", "string"}};
      case Shape::Kind::kChoice:
        return {{"enum", shape.words}};
      case Shape::Kind::kFlag:
        return {{"type", "boolean"}};
      case Shape::Kind::kNumber:
        return schemaOfNumber("integer", shape);
      case Shape::Kind::kTextOrNumber:
        return schemaOfNumber(orNumber("string"), shape);
      case Shape::Kind::kFlagOrNumber:
        return schemaOfNumber(orNumber("boolean"), shape);
      case Shape::Kind::kObject:
        return defined(ofObject(shape));
      case Shape::Kind::kMap:
        return ofMap(shape);
      case Shape::Kind::kList:
        return {{"type", "array"}, {"items", of(shape.element.front())}, {"maxItems", shape.most}};
    }
    return {};
  }

  Json ofObject(const Shape& shape) {
    Json properties = Json::object();
    for (const Field& field : shape.fields) properties[field.key] = ofField(field);
    return {{"type", "object"}, {"properties", properties}, {"additionalProperties", false}};
  }

  const Json& definitions() const { return m_definitions; }

 private:
  // Beside a reference nothing else counts.
  Json ofField(const Field& field) {
    Json schema = of(field.shape);
    if (schema.contains("$ref")) schema = {{"allOf", Json::array({schema})}};
    if (!field.help.empty()) schema["description"] = field.help;
    const bool isSmall = field.initial && (!field.initial->is_structured() || field.initial->empty());
    if (isSmall) schema["default"] = *field.initial;
    return schema;
  }

  Json ofMap(const Shape& shape) {
    Json schema = {{"type", "object"}, {"additionalProperties", of(shape.element.front())}};
    // Keys are texts: of those that are numbers only the form can be said.
    if (shape.element.back().kind != Shape::Kind::kText) {
      schema["propertyNames"] = {{"pattern", "^(0|-?[1-9][0-9]*)$"}};
    }
    return schema;
  }

  Json defined(Json schema) {
    constexpr std::size_t kWorthIt = 200;  // characters
    const std::string text = schema.dump();
    if (text.size() < kWorthIt) return schema;
    const auto [known, isNew] = m_names.try_emplace(text, "object" + std::to_string(m_names.size() + 1));
    if (isNew) m_definitions[known->second] = std::move(schema);
    return {{"$ref", "#/definitions/" + known->second}};
  }

  std::map<std::string, std::string> m_names;  // by their text
  Json m_definitions = Json::object();
};

}  // namespace

Json scenarioSchema() {
  Json schema = {
      {"$schema", "http://json-schema.org/draft-07/schema#"},
      {"title", "Scenario of orvel-sim"},
      {"description", "What a simulated device knows and how it misbehaves; what is left out is as by default"}};
  Schema parts;
  schema.update(parts.ofObject(scenarioShape()));
  schema["properties"]["$schema"] = {{"type", "string"},
                                     {"description", "where this schema is; the device ignores it"}};
  schema["definitions"] = parts.definitions();
  return schema;
}

}  // namespace orvel::sim
