#include "tools/orvel-sim/verbs/CompletionValues.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "device/EventResults.h"
#include "device/Scenario.h"
#include "device/Service.h"
#include "device/ServiceNames.h"
#include "device/ShippedScenarios.h"
#include "tools/cli/TypedWord.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "vesk/vesk.h"

namespace orvel::sim {
namespace {

using Names = std::vector<std::string>;

Names keysOf(const Json& object) {
  Names names;
  if (!object.is_object()) return names;
  for (const auto& [key, value] : object.items()) names.push_back(key);
  return names;
}

Names serviceIds() {
  Names names;
  for (const ServiceType* type : allServices()) names.push_back(type->id);
  return names;
}

// SERVICE [METHOD] and what ends a fault.
Names faultWords(const Names& before) {
  if (before.empty()) return serviceIds();
  Names names = {"on", "off"};
  if (before.size() == 1) {
    for (const Method& method : serviceCalled(before.front()).methods) names.push_back(method.name);
  }
  return names;
}

// The child of an object that a word means; also "setting" for "settings". Null when there is none.
const Json* childCalled(const Json& object, const std::string& word) {
  if (!object.is_object()) return nullptr;
  for (const char* ending : {"", "s", "es"}) {
    if (const auto child = object.find(word + ending); child != object.end()) return &*child;
  }
  return nullptr;
}

// What a file name of the runtime directory stands for: %XX is a byte.
std::string serviceNameOf(const std::string& file) {
  std::string name;
  for (std::size_t at = 0; at < file.size(); ++at) {
    if (file[at] != '%') {
      name += file[at];
    } else {
      name += static_cast<char>(std::strtol(file.substr(at + 1, 2).c_str(), nullptr, 16));
      at += 2;
    }
  }
  return name;
}

// Of the clients that published an endpoint for one; nothing needs to answer for that.
Names heldNamespaces() {
  Names names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(vesk_runtime_directory(), error)) {
    const std::string nspace = namespaceIn(serviceNameOf(entry.path().filename()));
    if (!nspace.empty()) names.push_back(nspace);
  }
  return names;
}

}  // namespace

cli::Values completions() {
  cli::Values values = {{"event-result result", {kEventResults.begin(), kEventResults.end()}},
                        {"--package", {"@packages"}},
                        {"directive", {"@namespaces"}},
                        {"service", {"@faults"}},
                        {"set", {"@fields"}},
                        {"field", {"@fields"}},
                        {"scenarios name", {"@scenarios"}},
                        {"run --scenario", {"@scenarios"}}};
  for (const char* name : {"kill service", "restart service", "flap service"}) values[name] = {"@services"};
  for (const char* name : {"stop name", "foreground name"}) values[name] = {"@processes"};
  for (const char* verb : {"start", "replace", "remove", "added", "removed", "replaced", "changed"}) {
    values[std::string(verb) + " name"] = {"@packages"};
  }
  for (const char* name : {"command", "file", "--scenario", "--record", "--seeds"}) values[name] = {"@files"};
  return values;
}

Names nextWords(const Json& scenario, const Names& way) {
  const Json* at = &scenario;
  if (way.empty()) {
    Names names = keysOf(scenario);
    std::map<std::string, int> fields;  // and how many sections have each
    for (const Json& section : scenario) {
      for (const std::string& field : keysOf(section)) ++fields[field];
    }
    for (const auto& [field, count] : fields) {
      if (count == 1) names.push_back(field);
    }
    return names;
  }
  if (!scenario.contains(way.front())) {
    for (const Json& section : scenario) {
      if (childCalled(section, way.front()) != nullptr) at = &section;
    }
  }
  for (const std::string& word : way) {
    at = childCalled(*at, word);
    if (at == nullptr) return {};
  }
  if (at->is_boolean()) return {"true", "false"};
  return at->is_object() ? keysOf(*at) : Names();
}

int completeValues(const Names& words) {
  if (words.size() < 4) return 2;
  cli::limitCompletion();
  const cli::TypedWord typed(words[0], words[1]);
  const std::string& kind = words[3];
  const Names before(words.begin() + 4, words.end());
  Names written;
  const auto offer = [&](const Names& names) {
    Names fresh;
    for (const std::string& name : names) {
      const std::string word = words[2] + name;
      if (std::find(written.begin(), written.end(), word) == written.end()) fresh.push_back(word);
    }
    cli::writeCompletions(typed, fresh);
    written.insert(written.end(), fresh.begin(), fresh.end());
  };
  const std::map<std::string, Json::json_pointer> live = {
      {"settings", Json::json_pointer("/delegate/settings")},
      {"packages", Json::json_pointer("/packages/packages")},
      {"processes", Json::json_pointer("/activity/processes")},
  };
  if (kind == "services") {
    if (before.empty()) offer(serviceIds());
  } else if (kind == "scenarios") {
    Names names;
    for (ShippedScenario& shipped : shippedScenarios()) names.push_back(std::move(shipped.name));
    offer(names);
    return 1;
  } else if (kind == "faults") {
    offer(faultWords(before));
  } else if (kind == "namespaces") {
    offer(heldNamespaces());
  } else if (kind == "features") {
    offer(ask("scenario").at("scenario").at("delegate").at("features").get<Names>());
  } else if (kind == "fields") {
    // Sections and fields are the same in every device; what is below them is not.
    const Json initial = defaultScenario();
    if (before.empty() || initial.contains(before.front())) offer(nextWords(initial, before));
    offer(nextWords(ask("scenario").at("scenario"), before));
  } else if (const auto place = live.find(kind); place != live.end()) {
    offer(keysOf(ask("scenario").at("scenario").at(place->second)));
  }
  return 0;
}

}  // namespace orvel::sim
