#include "device/Acts.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "device/Service.h"

namespace orvel::sim {
namespace {

// Below are the uids of the system, and the processes that came with it.
constexpr std::int64_t kFirstUid = 10'000;
constexpr std::int64_t kFirstPid = 4'000;

Json& packagesOf(Json& scenario) {
  return scenario.at("packages").at("packages");
}
Json& processesOf(Json& scenario) {
  return scenario.at("activity").at("processes");
}

void expect(const Json& things, const std::string& name, const char* kind, bool wanted) {
  if (things.contains(name) == wanted) return;
  throw std::runtime_error(std::string(kind) + " " + name + (wanted ? " does not exist" : " exists already"));
}

// The lowest number from `first` on that none of the entries has.
std::int64_t nextFree(const Json& entries, const char* key, std::int64_t first) {
  std::set<std::int64_t> taken;
  for (const Json& entry : entries) taken.insert(entry.at(key).get<std::int64_t>());
  while (taken.count(first) != 0) ++first;
  return first;
}

std::int64_t now() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

bool lists(const Json& process, const std::string& package) {
  const Json& packages = process.at("packages");
  return std::find(packages.begin(), packages.end(), package) != packages.end();
}

void install(Json& scenario, const std::string& name, const Json& values) {
  Json& packages = packagesOf(scenario);
  expect(packages, name, "package", false);
  Json package = {{"uid", nextFree(packages, "uid", kFirstUid)}, {"firstInstallMs", now()}, {"lastUpdateMs", now()}};
  package.update(values);
  packages[name] = package;
}

void replace(Json& scenario, const std::string& name, const Json& values) {
  Json& packages = packagesOf(scenario);
  expect(packages, name, "package", true);
  Json& package = packages[name];
  package["versionCode"] = package["versionCode"].get<std::int64_t>() + 1;
  package["lastUpdateMs"] = now();
  package.update(values);
}

void remove(Json& scenario, const std::string& name, const Json&) {
  Json& packages = packagesOf(scenario);
  expect(packages, name, "package", true);
  packages.erase(name);
  std::vector<std::string> ended;
  for (const auto& [process, record] : processesOf(scenario).items()) {
    if (lists(record, name)) ended.push_back(process);
  }
  for (const std::string& process : ended) processesOf(scenario).erase(process);
}

void start(Json& scenario, const std::string& name, const Json& values) {
  Json& processes = processesOf(scenario);
  expect(processes, name, "process", false);
  // A package's further processes are named after it too: "com.example.app:remote".
  Json process = {{"pid", nextFree(processes, "pid", kFirstPid)},
                  {"packages", Json::array({name.substr(0, name.find(':'))})}};
  process.update(values);
  if (!process.contains("uid")) {
    const Json& packages = packagesOf(scenario);
    const auto package = packages.find(process["packages"].at(0));
    process["uid"] = package == packages.end() ? Json(nextFree(packages, "uid", kFirstUid)) : package->at("uid");
  }
  processes[name] = process;
}

void stop(Json& scenario, const std::string& name, const Json&) {
  expect(processesOf(scenario), name, "process", true);
  processesOf(scenario).erase(name);
}

void foreground(Json& scenario, const std::string& name, const Json&) {
  Json& processes = processesOf(scenario);
  expect(processes, name, "process", true);
  for (Json& process : processes) {
    if (process.value("focused", false)) process.update({{"focused", false}, {"importance", kCached}});
  }
  processes[name].update({{"focused", true}, {"importance", kForeground}});
}

// The name of the package's process: of the one that is named after it, else the first that lists it. It is started if
// there is none, with that importance.
std::string processOf(Json& scenario, const std::string& package, const Json& importance) {
  const Json& processes = processesOf(scenario);
  if (processes.contains(package)) return package;
  for (const auto& [name, process] : processes.items()) {
    if (lists(process, package)) return name;
  }
  start(scenario, package, {{"importance", importance}});
  return package;
}

void openPackage(Json& scenario, const std::string& package, const Json&) {
  if (!packagesOf(scenario).contains(package)) return;
  foreground(scenario, processOf(scenario, package, kForeground), {});
}

void servePackage(Json& scenario, const std::string& package, const Json& values) {
  if (!packagesOf(scenario).contains(package)) return;
  const Json& wanted = values.at("importance");
  Json& importance = processesOf(scenario)[processOf(scenario, package, wanted)]["importance"];
  importance = std::min(importance, wanted);
}

void set(Json& scenario, const std::string& section, const Json& values) {
  scenario.at(section).update(values);
}

void endFault(Json& faults, const std::string& method, const std::string& key) {
  Json& ofMethod = faults.at(method);
  ofMethod.erase(key);
  if (const auto limits = ofMethod.find(kOnly); limits != ofMethod.end()) {
    limits->erase(key);
    if (limits->empty()) ofMethod.erase(kOnly);
  }
  if (ofMethod.empty()) faults.erase(method);
}

void fault(Json& scenario, const std::string& section, const Json& values) {
  Json& faults = scenario.at(section).at(kFaults);
  const std::string key = values.at("key");
  const std::string only = values.value("method", std::string());
  std::vector<std::string> methods;
  for (const auto& [method, ofMethod] : faults.items()) {
    if (only.empty() || only == method) methods.push_back(method);
  }
  for (const std::string& method : methods) endFault(faults, method, key);
  if (!values.contains("value")) return;
  Json& ofMethod = faults[only];
  ofMethod[key] = values.at("value");
  if (values.contains(kOnly)) ofMethod[kOnly][key] = values.at(kOnly);
}

void flap(Json& scenario, const std::string& section, const Json& values) {
  Json& service = scenario.at(section);
  const bool flapped = service.erase(kFlap) != 0;
  if (!values.empty()) {
    service[kFlap] = values;
  } else if (flapped) {
    service[kAlive] = true;
  }
}

void live(Json& scenario, const std::string& section, const Json& values) {
  Json& service = scenario.at(section);
  service.erase(kFlap);
  service[kAlive] = values.at(kAlive);
}

void flapOnce(Json& scenario, const std::string& section, const Json&) {
  Json& service = scenario.at(section);
  const bool alive = !service.at(kAlive).get<bool>();
  service[kAlive] = alive;
  Json& flapping = service.at(kFlap);
  if (!alive || !flapping.contains("count")) return;
  const auto left = flapping["count"].get<std::int64_t>() - 1;
  flapping["count"] = left;
  if (left == 0) service.erase(kFlap);
}

struct Act {
  void (*perform)(Json& scenario, const std::string& name, const Json& values);
  bool isOfSection;  // else of packages and processes
};

const Act& actCalled(const Json& act) {
  static const std::map<std::string, Act> acts = {
      {"install", {install, false}},
      {"replace", {replace, false}},
      {"remove", {remove, false}},
      {"start", {start, false}},
      {"stop", {stop, false}},
      {"foreground", {foreground, false}},
      {"openPackage", {openPackage, false}},
      {"servePackage", {servePackage, false}},
      {"set", {set, true}},
      {"fault", {fault, true}},
      {"flap", {flap, true}},
      {"flapOnce", {flapOnce, true}},
      {"live", {live, true}},
  };
  const auto found = acts.find(act.at("act"));
  if (found == acts.end()) throw std::runtime_error("no such act: " + act.dump());
  return found->second;
}

}  // namespace

Json makeAct(const char* verb, const std::string& name, const Json& values) {
  return {{"act", verb}, {"name", name}, {"values", values}};
}

FieldsOfSections fieldsOf(const Json& act) {
  const Act& called = actCalled(act);
  if (!called.isOfSection) return {{"packages", {"packages"}}, {"activity", {"processes"}}};
  if (called.perform == fault) return {{act.at("name"), {kFaults}}};
  std::vector<std::string> fields = {kAlive, kFlap};
  for (const auto& [field, value] : act.at("values").items()) {
    if (called.perform == set) fields.push_back(field);
  }
  return {{act.at("name"), std::move(fields)}};
}

void perform(Json& scenario, const Json& act) {
  actCalled(act).perform(scenario, act.at("name"), act.at("values"));
}

std::optional<std::chrono::milliseconds> flapInterval(const Json& section) {
  const auto flapping = section.find(kFlap);
  if (flapping == section.end()) return std::nullopt;
  return std::chrono::milliseconds(flapping->at("periodMs").get<std::int64_t>() / 2);
}

}  // namespace orvel::sim
