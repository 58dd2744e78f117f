#include "device/Convert.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

namespace orvel::sim {
namespace {

// The device type among the strings of the device information.
constexpr std::size_t kTypeIndex = 3;

using Learn = void (*)(Json& scenario, const Json& arguments, const Json& shown);

Json& packageIn(Json& scenario, const Json& arguments) {
  Json& packages = scenario["packages"]["packages"];
  return packages[arguments.at("package").get<std::string>()];
}

// False for a package that is not there.
bool learnWhether(Json& scenario, const Json& arguments, const Json& shown) {
  if (shown.is_null()) {
    scenario["packages"]["packages"].erase(arguments.at("package").get<std::string>());
  } else {
    Json& package = packageIn(scenario, arguments);
    if (package.is_null()) package = Json::object();
  }
  return !shown.is_null();
}

void learnInfo(Json& scenario, const Json&, const Json& shown) {
  Json info = shown;
  scenario["delegate"]["type"] = info.at(kTypeIndex);
  info.erase(kTypeIndex);
  while (!info.empty() && (info.back().is_null() || isEmptyText(info.back()))) info.erase(info.size() - 1);
  scenario["delegate"]["info"] = info;
}

void learnSetting(Json& scenario, const Json& arguments, const Json& shown) {
  Json& settings = scenario["delegate"]["settings"];
  const std::string key = arguments.at("key");
  if (shown.is_null()) {
    settings.erase(key);
  } else {
    settings[key] = shown;
  }
}

void learnFeature(Json& scenario, const Json& arguments, const Json& shown) {
  auto& features = scenario["delegate"]["features"].get_ref<Json::array_t&>();
  const Json& feature = arguments.at("feature");
  features.erase(std::remove(features.begin(), features.end(), feature), features.end());
  if (shown == true) features.push_back(feature);
}

// Those that are not listed are not there; the others stay what they are known to be.
void learnPackages(Json& scenario, const Json&, const Json& shown) {
  const Json known = scenario["packages"]["packages"];
  Json& packages = scenario["packages"]["packages"] = Json::object();
  for (const Json& name : shown) {
    packages[name.get<std::string>()] = known.value(name.get<std::string>(), Json::object());
  }
}

void learnApplication(Json& scenario, const Json& arguments, const Json& shown) {
  if (!learnWhether(scenario, arguments, shown)) return;
  if (shown.contains("metaData")) packageIn(scenario, arguments)["metaData"] = shown.at("metaData");
}

void learnPackage(Json& scenario, const Json& arguments, const Json& shown) {
  if (!learnWhether(scenario, arguments, shown)) return;
  for (const char* key : {"versionCode", "versionName", "firstInstallMs", "lastUpdateMs"}) {
    packageIn(scenario, arguments)[key] = shown.at(key);
  }
  learnApplication(scenario, arguments, shown.at("application"));
}

// A uid that was asked for belongs to the listed packages alone; another package that has it gets one of its own.
void learnUid(Json& scenario, const Json& arguments, const Json& shown) {
  const Json& uid = arguments.at("uid");
  Json& packages = scenario["packages"]["packages"];
  for (const Json& name : shown) packages[name.get<std::string>()]["uid"] = uid;
  const Json complete = sim::complete(scenarioShape(), scenario)["packages"]["packages"];
  std::int64_t free = 1;
  for (const Json& package : complete) free = std::max(free, package.at("uid").get<std::int64_t>() + 1);
  for (const auto& [name, package] : complete.items()) {
    if (package.at("uid") == uid && std::find(shown.begin(), shown.end(), name) == shown.end()) {
      packages[name]["uid"] = free++;
    }
  }
}

void learnReceivers(Json& scenario, const Json& arguments, const Json& shown) {
  const Json& action = arguments.at("action");
  Json& packages = scenario["packages"]["packages"];
  for (Json& package : packages) {
    for (Json& receiver : package["receivers"]) {
      auto& actions = receiver["actions"].get_ref<Json::array_t&>();
      actions.erase(std::remove(actions.begin(), actions.end(), action), actions.end());
    }
    if (package["receivers"].is_null()) package.erase("receivers");
  }
  for (const Json& component : shown) {
    Json& receivers = packages[component.at("package").get<std::string>()]["receivers"];
    const auto isIt = [&](const Json& receiver) { return receiver.at("class") == component.at("class"); };
    auto known = std::find_if(receivers.begin(), receivers.end(), isIt);
    if (known == receivers.end()) {
      receivers.push_back({{"class", component.at("class")}, {"actions", Json::array()}});
      known = std::prev(receivers.end());
    }
    (*known)["actions"].push_back(action);
  }
}

void learnLaunch(Json& scenario, const Json& arguments, const Json& shown) {
  const std::string name = arguments.at("package");
  Json& packages = scenario["packages"]["packages"];
  if (shown.is_null() && !packages.contains(name)) return;
  packages[name]["launchActivity"] = shown.is_null() ? Json("") : shown.at("component").at("class");
}

void learnResource(Json& scenario, const Json& arguments, const Json& shown) {
  const std::string name = arguments.at("package");
  Json& packages = scenario["packages"]["packages"];
  if (shown.is_null() && !packages.contains(name)) return;
  if (shown.is_null()) {
    packages[name]["resources"].erase(arguments.at("id").dump());
  } else {
    packages[name]["resources"][arguments.at("id").dump()] = shown;
  }
}

// The values of a device that change by broadcast.
void learnBroadcast(Json& scenario, const Json& intent, const Json&) {
  const Json& action = intent.at("action");
  if (action == "android.intent.action.SCREEN_ON") scenario["power"]["screenOn"] = true;
  if (action == "android.intent.action.SCREEN_OFF") scenario["power"]["screenOn"] = false;
  for (const Json& extra : intent.value("extras", Json::array())) {
    if (extra.at("key") == "com.quarlo.hux.sso.property.devicename") scenario["delegate"]["name"] = extra.at("value");
    if (extra.at("key") == "com.quarlo.speech.EXTRA_CONNECTIVITY") {
      scenario["delegate"]["maroConnected"] = extra.at("value") != 0;
    }
  }
}

// What notifications tell, and replies that are not a field of the scenario: by service and name of the method or
// notification.
const std::map<std::pair<std::string, std::string>, Learn>& lessons() {
  static const std::map<std::pair<std::string, std::string>, Learn> lessons = {
      {{"delegate", "getDeviceInfo"}, learnInfo},
      {{"delegate", "getSecureSetting"}, learnSetting},
      {{"delegate", "checkSystemFeature"}, learnFeature},
      {{"delegate", "getApplicationInfo"}, learnApplication},
      {{"delegate", "getPackageInfo"}, learnPackage},
      {{"delegate", "getPackageNamesForUid"}, learnUid},
      {{"delegate", "queryBroadcastReceivers"}, learnReceivers},
      {{"delegate", "getLaunchIntentForPackage"}, learnLaunch},
      {{"delegate", "getRawResourceAsString"}, learnResource},
      {{"packages", "getPackages"}, learnPackages},
      {{"events", "sendEvent"}, [](Json& all, const Json&, const Json& is) { all["events"]["reply"] = is; }},
      {{"events", "eventResult"},
       [](Json& all, const Json& told, const Json&) {
         all["events"]["resultMode"] = told.contains("code") ? "after" : "malformed";
         if (told.contains("code")) all["events"]["result"] = told.at("code");
       }},
      {{"connectivity", "networkAvailable"},
       [](Json& all, const Json&, const Json&) { all["connectivity"]["networkConnected"] = true; }},
      {{"connectivity", "networkLost"},
       [](Json& all, const Json&, const Json&) { all["connectivity"]["networkConnected"] = false; }},
      {{"delegate", "settingChanged"},
       [](Json& all, const Json& told, const Json&) {
         learnSetting(all, told, isEmptyText(told.at("value")) ? Json() : told.at("value"));
       }},
      {{"delegate", "broadcast"}, learnBroadcast},
  };
  return lessons;
}

}  // namespace

Json scenarioOf(const Recording& recording) {
  Json scenario = defaultScenario();
  for (const RecordedEntry& recorded : recording.entries) {
    const Json& entry = recorded.entry;
    const bool told = recorded.callback != nullptr;
    if (!told && (!entry.contains("reply") || entry.contains("truncatedTo"))) continue;
    if (!told && !recorded.method->field.empty()) {
      scenario[recorded.type->id][recorded.method->field] = entry.at("reply");
      continue;
    }
    const auto lesson = lessons().find({recorded.type->id, told ? recorded.callback->name : recorded.method->name});
    if (lesson == lessons().end()) continue;
    try {
      lesson->second(scenario, entry.at("arguments"), entry.value("reply", Json()));
    } catch (const Json::exception& error) {
      throw RecordingError(recording.file + ":" + std::to_string(recorded.line) + ": " + plainText(error));
    }
  }
  return complete(scenarioShape(), scenario);
}

}  // namespace orvel::sim
