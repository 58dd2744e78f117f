#include "device/CurrentScenario.h"

#include <iterator>
#include <optional>
#include <utility>

#include "device/Acts.h"
#include "device/Scenario.h"
#include "device/Service.h"

namespace orvel::sim {
namespace {

using Pointer = Json::json_pointer;

std::vector<std::string> namesIn(Pointer path) {
  std::vector<std::string> names;
  for (; !path.empty(); path.pop_back()) names.insert(names.begin(), path.back());
  return names;
}

std::size_t sizeOf(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace).size();
}

// Of a member of an object, but for a comma; 0 for none.
std::size_t sizeOf(const std::string& key, const Json& value) {
  return value.is_null() ? 0 : sizeOf(Json(key)) + 1 + sizeOf(value);
}

Json found(const Json& scenario, const Pointer& path) {
  return scenario.contains(path) ? scenario.at(path) : Json();
}

// Makes the objects that lead there. The pointer's own way would make a list where a key is a number.
Json& valueAt(Json& value, const Pointer& path) {
  if (path.empty()) return value;
  Json& parent = valueAt(value, path.parent_pointer());
  if (!parent.is_object()) parent = Json::object();
  return parent[path.back()];
}

// The field of a section, or the entry of a map that is one: what edits replace.
struct Unit {
  Pointer path;
  const Shape* shape;
  std::optional<Json> initial;  // what it is when it is removed
};

Unit unitAt(const std::vector<std::string>& names) {
  const Field& section = fieldOf(scenarioShape(), names.at(0), "");
  const Field& field = fieldOf(section.shape, names.at(1), "/" + section.key);
  Unit unit = {Pointer() / section.key / field.key, &field.shape, field.initial};
  if (field.shape.kind == Shape::Kind::kMap && names.size() > 2) {
    unit = {unit.path / names[2], &field.shape.element.front(), std::nullopt};
    expectKey(field.shape.element.back(), names[2], unit.path.to_string());
  }
  return unit;
}

// Null where nothing is left.
Json without(Json value, const Pointer& path, bool isFaults) {
  if (path.empty() || !value.contains(path)) return path.empty() ? Json() : value;
  const Pointer parent = path.parent_pointer();
  value[parent].erase(path.back());
  // A method of which the last fault has ended has none.
  if (isFaults && !parent.empty() && value[parent].empty()) return without(std::move(value), parent, isFaults);
  return value;
}

// The unit with the value at the path below it, or without one there.
Json editOf(const Unit& unit, Json current, const Pointer& below, const Json* value) {
  const std::string path = unit.path.to_string();
  Json whole = std::move(current);
  if (value != nullptr) {
    valueAt(whole, below) = *value;
  } else {
    whole = without(std::move(whole), below, unit.path.back() == kFaults);
    if (whole.is_null() && !unit.initial) return {{"path", path}};
    if (whole.is_null()) whole = *unit.initial;
  }
  return {{"path", path}, {"value", complete(*unit.shape, whole, path)}};
}

// One for each field that a section has or may have.
Json editsOfFields(const Shape& shape, const Json& object, const Pointer& path) {
  Json edits = Json::array();
  for (const Field& field : shape.fields) {
    edits.push_back({{"path", (path / field.key).to_string()}});
    if (const auto value = object.find(field.key); value != object.end()) edits.back()["value"] = *value;
  }
  return edits;
}

Json editsAt(const Json& scenario, const std::vector<std::string>& names, const Json* value) {
  if (names.empty()) throw ScenarioError("a change of the whole scenario");
  const Field& section = fieldOf(scenarioShape(), names.front(), "");
  const Pointer path = Pointer() / section.key;
  if (section.shape.kind != Shape::Kind::kObject) {
    Pointer below;
    for (std::size_t i = 1; i < names.size(); ++i) below /= names[i];
    return Json::array({editOf({path, &section.shape, section.initial}, found(scenario, path), below, value)});
  }
  if (names.size() == 1) {
    const Json whole = complete(section.shape, value == nullptr ? Json::object() : *value, path.to_string());
    return editsOfFields(section.shape, whole, path);
  }
  const Unit unit = unitAt(names);
  Pointer below;
  for (std::size_t i = namesIn(unit.path).size(); i < names.size(); ++i) below /= names[i];
  return Json::array({editOf(unit, found(scenario, unit.path), below, value)});
}

// Calls `found` for each entry of a map that is not as it was, with null for what it was or is where it is missing: in
// the map's order, and then for those that are gone.
template <typename Found>
void forEachDifference(const Json& was, const Json& is, const Found& found) {
  auto next = was.begin();  // of two maps that are mostly the same, the entry that is expected; a search takes long
  for (const auto& [key, value] : is.items()) {
    const auto before = next != was.end() && next.key() == key ? next : was.find(key);
    if (before == was.end() || *before != value) found(key, before == was.end() ? Json() : *before, value);
    if (before != was.end()) next = std::next(before);
  }
  for (const auto& [key, value] : was.items()) {
    if (!is.contains(key)) found(key, value, Json());
  }
}

// Null where there is none.
const Json& memberOf(const Json& object, const std::string& key) {
  static const Json null;
  const auto member = object.find(key);
  return member == object.end() ? null : *member;
}

// What an act may change of the scenario, for it to work on.
Json draftFor(const Json& act, const Json& scenario) {
  Json draft = Json::object();
  for (const auto& [section, fields] : fieldsOf(act)) {
    draft[section] = Json::object();
    for (const std::string& field : fields) {
      const Json& value = memberOf(scenario.at(section), field);
      if (!value.is_null()) draft[section][field] = value;
    }
  }
  return draft;
}

// Of a map only the entries that it has changed are looked at any further: there may be thousands.
Json editsOfAct(const Json& scenario, const Json& act) {
  Json draft = draftFor(act, scenario);
  perform(draft, act);
  Json edits = Json::array();
  const auto add = [&](const Pointer& path, const Shape& shape, const Json& value) {
    edits.push_back({{"path", path.to_string()}});
    if (!value.is_null()) edits.back()["value"] = complete(shape, value, path.to_string());
  };
  for (const auto& [section, fields] : fieldsOf(act)) {
    const Shape& shape = fieldOf(scenarioShape(), section, "").shape;
    for (const std::string& key : fields) {
      const Field& field = fieldOf(shape, key, "/" + section);
      const Pointer path = Pointer() / section / key;
      const Json& was = memberOf(scenario.at(section), key);
      const Json& is = memberOf(draft[section], key);
      if (field.shape.kind != Shape::Kind::kMap || !is.is_object()) {
        if (was != is) add(path, field.shape, is);
        continue;
      }
      forEachDifference(was, is, [&](const std::string& entry, const Json&, const Json& now) {
        expectKey(field.shape.element.back(), entry, (path / entry).to_string());
        add(path / entry, field.shape.element.front(), now);
      });
    }
  }
  return edits;
}

// With the sections in their order: it is written as it stands.
Json inOrder(Json scenario) {
  Json ordered = Json::object();
  for (const Field& section : scenarioShape().fields) {
    if (const auto value = scenario.find(section.key); value != scenario.end())
      ordered[section.key] = std::move(*value);
  }
  return ordered;
}

}  // namespace

CurrentScenario::CurrentScenario(Json scenario) : m_scenario(std::move(scenario)) {}

Json CurrentScenario::resolve(const Json& change) const {
  const auto value = change.find("value");
  const auto whole = change.find("scenario");
  Json edits = whole != change.end()    ? editsTo(complete(scenarioShape(), *whole))
               : change.contains("act") ? editsOfAct(m_scenario, change)
                                        : editsAt(m_scenario, namesIn(Pointer(change.at("path").get<std::string>())),
                                                  value == change.end() ? nullptr : &*value);
  if (!m_size) m_size = sizeOf(m_scenario);
  std::size_t size = *m_size;
  for (const Json& edit : edits) {
    const Pointer path(edit.at("path").get<std::string>());
    size += sizeOf(path.back(), edit.value("value", Json())) - sizeOf(path.back(), found(m_scenario, path));
  }
  expectSize(size);
  return edits;
}

std::vector<Difference> CurrentScenario::apply(const Json& edits) {
  std::vector<Difference> differences;
  for (const Json& edit : edits) {
    const Pointer path(edit.at("path").get<std::string>());
    const Json was = found(m_scenario, path);
    const Json is = edit.value("value", Json());
    if (was == is) continue;
    if (m_size) *m_size += sizeOf(path.back(), is) - sizeOf(path.back(), was);
    const std::vector<std::string> names = namesIn(path);
    if (is.is_null()) {
      m_scenario[path.parent_pointer()].erase(path.back());
    } else {
      valueAt(m_scenario, path) = is;
    }
    if (names.size() == 1) {
      m_scenario = inOrder(std::move(m_scenario));
      continue;  // "about", which no service looks at
    }
    if (names.size() == 3 || unitAt(names).shape->kind != Shape::Kind::kMap) {
      differences.push_back({names[0], names[1], names.size() == 3 ? names[2] : "", was, is});
      continue;
    }
    forEachDifference(was, is, [&](const std::string& key, const Json& before, const Json& now) {
      differences.push_back({names[0], names[1], key, before, now});
    });
  }
  return differences;
}

Json editsTo(const Json& scenario) {
  Json edits = Json::array();
  for (const Field& section : scenarioShape().fields) {
    if (section.shape.kind != Shape::Kind::kObject) {
      edits.push_back({{"path", (Pointer() / section.key).to_string()}});
      if (const auto value = scenario.find(section.key); value != scenario.end()) edits.back()["value"] = *value;
      continue;
    }
    for (Json& edit : editsOfFields(section.shape, scenario.at(section.key), Pointer() / section.key)) {
      edits.push_back(std::move(edit));
    }
  }
  return edits;
}

}  // namespace orvel::sim
