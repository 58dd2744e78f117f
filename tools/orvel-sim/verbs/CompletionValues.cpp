#include "tools/orvel-sim/verbs/CompletionValues.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <system_error>
#include <utility>

#include "device/EventResults.h"
#include "device/Scenario.h"
#include "device/Service.h"
#include "device/ShippedScenarios.h"
#include "device/Traffic.h"
#include "tools/cli/TypedWord.h"
#include "tools/orvel-sim/host/Devices.h"
#include "tools/orvel-sim/host/Namespaces.h"
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

// Services, notifications and methods, those of one service behind its name; not all at once while nothing is typed.
Names trafficNames(const std::string& typed) {
  Names names = serviceIds();
  const bool isOfService = typed.find('.') != std::string::npos;
  for (const ServiceType* type : allServices()) {
    const std::string service = isOfService ? type->id + "." : "";
    if (typed.empty()) continue;
    for (const Method& method : type->methods) names.push_back(service + method.name);
    for (const CallbackMethod* callback : type->callbacks) names.push_back(service + callback->name);
  }
  return names;
}

// The programs of the clients that are connected now, and of those that made the newest calls.
Names clientNames() {
  Names names;
  for (const Json& client : ask("status").at("clients")) names.push_back(client.value("client", std::string()));
  const auto after = [](std::uint64_t number) {
    return device().send({{"order", "traffic"}, {"after", number}, {"wait", false}});
  };
  const auto newest = after(UINT64_MAX).at("newest").get<std::uint64_t>();
  const Json traffic = after(newest - std::min<std::uint64_t>(newest, kEntriesAtOnce));
  for (const Json& entry : traffic.at("entries")) names.push_back(entry.value("client", std::string()));
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  names.erase(std::remove(names.begin(), names.end(), ""), names.end());
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

Names namesOfHeld() {
  Names names;
  for (const Json& held : heldNamespaces()) names.push_back(held.at("namespace"));
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
  for (const char* name : {"flap service", "reset service", "run --without"}) values[name] = {"@services"};
  for (const char* name : {"kill service", "restart service"}) values[name] = {"all", "@services"};
  values["load file"] = {"@scenarios"};
  values["--device"] = {"@devices"};
  for (const char* name : {"stop name", "foreground name"}) values[name] = {"@processes"};
  for (const char* verb : {"start", "replace", "remove", "added", "removed", "replaced", "changed"}) {
    values[std::string(verb) + " name"] = {"@packages"};
  }
  for (const char* name : {"traffic name", "convert name", "--not"}) values[name] = {"@traffic"};
  values["wait calls"] = {"call=@traffic"};
  values["--client"] = {"@clients"};
  for (const char* name : {"command", "file", "--file", "--scenario", "--record", "--seeds", "--trace", "--mermaid"}) {
    values[name] = {"@files"};
  }
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
  if (kind == "traffic") {
    offer(trafficNames(typed.text().substr(std::min(words[2].size(), typed.text().size()))));
  } else if (kind == "clients") {
    offer(clientNames());
  } else if (kind == "services") {
    if (before.empty()) offer(serviceIds());
  } else if (kind == "devices") {
    Names names;
    for (const FoundDevice& each : runningDevices()) names.push_back(each.name.empty() ? each.directory : each.name);
    offer(names);
  } else if (kind == "scenarios") {
    Names names;
    for (ShippedScenario& shipped : shippedScenarios()) names.push_back(std::move(shipped.name));
    offer(names);
    return 1;
  } else if (kind == "faults") {
    offer(faultWords(before));
  } else if (kind == "namespaces") {
    offer(namesOfHeld());
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
