#include "device/ShippedScenarios.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "device/Scenario.h"
#include "device/services/DefaultContent.h"

namespace orvel::sim {
namespace {

// The files of device/scenarios.
struct File {
  const char* name;
  const char* text;
};
constexpr File kFiles[] = {
#include "ShippedScenarios.inc"
};

std::string numbered(const char* name, int number) {
  std::string digits = std::to_string(number);
  return name + std::string(3 - digits.size(), '0') + digits;
}

// What would be thousands of lines in a file. Nothing in it is random: it is the same device everywhere.
void addMuch(Json& scenario) {
  constexpr int kPackages = 400;
  constexpr int kProcesses = 250;
  constexpr int kSettings = 300;
  constexpr int kFirstUid = 10'100;
  constexpr int kImportances[] = {125, 200, 300, 400, 400, 400};
  Json packages = defaultPackages();
  Json processes = defaultProcesses();
  Json settings = {{"device_provisioned", "1"}, {"volume_alarm", "5"}};
  for (int n = 0; n < kPackages; ++n) {
    packages[numbered("com.example.app", n)] = {
        {"versionCode", 1000 + n},
        {"versionName", "1." + std::to_string(n)},
        {"uid", kFirstUid + n},
        {"metaData", {{"com.example.index", n}, {"com.example.store", "show-room"}}},
        {"launchActivity", numbered("com.example.app", n) + ".MainActivity"},
    };
  }
  for (int n = 0; n < kProcesses; ++n) {
    const std::string package = numbered("com.example.app", n);
    processes[package] = {{"pid", 5000 + n},
                          {"uid", kFirstUid + n},
                          {"importance", kImportances[n % static_cast<int>(std::size(kImportances))]},
                          {"packages", {package}}};
  }
  for (int n = 0; n < kSettings; ++n) settings[numbered("show_room_", n)] = std::to_string(n * 7);
  scenario["delegate"]["settings"] = settings;
  scenario["packages"]["packages"] = packages;
  scenario["activity"]["processes"] = processes;
}

// What would fill many screens in a file.
void addLong(Json& scenario) {
  constexpr std::size_t kLong = 65'536;
  constexpr std::size_t kLongKey = 1000;
  std::string notes;
  while (notes.size() < kLong) notes += "𝄞";  // four bytes, and two units on the wire
  Json& delegate = scenario["delegate"];
  delegate["settings"]["long"] = std::string(kLong, '7');
  delegate["settings"]["long_notes"] = notes;
  delegate["settings"][std::string(kLongKey, 'k')] = "1";
  delegate["features"] = {"", std::string(kLong, 'f'), "com.example.🎹"};
  scenario["packages"]["packages"][std::string(kLongKey, 'p')] = {{"versionName", std::string(kLong, '9')}};
}

constexpr struct {
  const char* name;
  void (*complete)(Json& scenario);
} kGenerated[] = {{"busy", addMuch}, {"extremes", addLong}};

bool isFile(const std::string& word) {
  constexpr char kExtension[] = ".json";
  constexpr std::size_t kSize = sizeof(kExtension) - 1;
  return word.find('/') != std::string::npos ||
         (word.size() > kSize && word.compare(word.size() - kSize, kSize, kExtension) == 0);
}

}  // namespace

std::vector<ShippedScenario> shippedScenarios() {
  std::vector<ShippedScenario> shipped;
  for (const File& file : kFiles) shipped.push_back({file.name, Json::parse(file.text).at("about")});
  return shipped;
}

Json shippedScenario(const std::string& name) {
  const auto isCalled = [&](const auto& each) { return each.name == name; };
  const auto* const file = std::find_if(std::begin(kFiles), std::end(kFiles), isCalled);
  if (file == std::end(kFiles)) {
    std::vector<std::string> names;
    for (const File& each : kFiles) names.emplace_back(each.name);
    throw ScenarioError(
        "no scenario is called '" + name + "'; there are " + joined(names) + ", and files have a slash or end in .json",
        name, names);
  }
  Json scenario = Json::parse(file->text);
  const auto* const generated = std::find_if(std::begin(kGenerated), std::end(kGenerated), isCalled);
  if (generated != std::end(kGenerated)) generated->complete(scenario);
  return scenario;
}

Json scenarioCalled(const std::string& word) {
  return isFile(word) ? readScenarioFile(word) : readScenario(shippedScenario(word).dump(), word);
}

}  // namespace orvel::sim
