#include "device/Shape.h"

#include <algorithm>
#include <utility>

namespace orvel::sim {
namespace {

std::string nameOf(const Shape& shape) {
  switch (shape.kind) {
    case Shape::Kind::kText:
      return "a string";
    case Shape::Kind::kChoice:
      return "one of " + joined(shape.words);
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

}  // namespace

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

Shape Shape::choice(std::vector<std::string> words) {
  return {Kind::kChoice, {}, {}, 0, 0, std::move(words)};
}
Fields::Fields(std::vector<Field> fields) : m_fields(std::make_shared<const std::vector<Field>>(std::move(fields))) {}

const Field* Fields::begin() const {
  return m_fields == nullptr ? nullptr : m_fields->data();
}

const Field* Fields::end() const {
  return m_fields == nullptr ? nullptr : m_fields->data() + m_fields->size();
}

Shape Shape::object(std::vector<Field> fields) {
  return {Kind::kObject, Fields(std::move(fields)), {}, 0, 0};
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

std::string keysOf(const Shape& object) {
  std::vector<std::string> keys;
  for (const Field& field : object.fields) keys.push_back(field.key);
  return joined(keys);
}

const Field& fieldOf(const Shape& object, const std::string& key, const std::string& path) {
  std::vector<std::string> known;
  for (const Field& field : object.fields) {
    if (field.key == key) return field;
    known.push_back(field.key);
  }
  throw ScenarioError(path + "/" + key + ": unknown key; there are " + joined(known), key, known);
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

Json valueOf(const Shape& shape, const std::string& word, const std::string& path) {
  if (shape.kind == Shape::Kind::kText) return word;
  Json value = shape.kind == Shape::Kind::kChoice ? Json(word) : Json::parse(word, nullptr, /*allow_exceptions=*/false);
  if (shape.kind == Shape::Kind::kTextOrNumber && !value.is_string() && !value.is_number_integer()) return word;
  if (value.is_discarded()) failAt(path, "expected " + nameOf(shape));
  complete(shape, value, path);
  return value;
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

}  // namespace orvel::sim
