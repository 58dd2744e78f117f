#include "device/Convert.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "device/Intent.h"
#include "device/OutputFile.h"

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

// Seeds, each once.
class Seeds {
 public:
  explicit Seeds(std::filesystem::path folder) : m_folder(std::move(folder)) {}

  // `drawn` are the values that the target draws before it takes the bytes.
  void add(const std::string& target, const std::string& bytes, std::initializer_list<unsigned char> drawn = {}) {
    const std::string input = std::string(drawn.begin(), drawn.end()) + bytes;
    if (!m_written[target].insert(input).second) return;
    std::error_code error;
    std::filesystem::create_directories(m_folder / target, error);
    if (error) throw std::runtime_error((m_folder / target).string() + ": cannot be made: " + error.message());
    const std::string name = "recorded-" + std::to_string(m_written[target].size() - 1);
    OutputFile(m_folder / target / name, /*replace=*/true).write(input);
    ++m_count;
  }

  std::size_t count() const { return m_count; }

 private:
  std::filesystem::path m_folder;
  std::map<std::string, std::set<std::string>> m_written;
  std::size_t m_count = 0;
};

template <typename Write>
std::string bytesOf(const Write& write) {
  const PayloadPtr payload(vesk_payload_alloc());
  if (!payload) throw std::bad_alloc();
  write(payload.get());
  std::size_t size = 0;
  const auto* bytes = static_cast<const char*>(vesk_payload_data(payload.get(), &size));
  return {bytes, size};
}

void addReply(Seeds& seeds, const RecordedEntry& recorded) {
  const Json& entry = recorded.entry;
  std::string whole;
  if (const auto exception = entry.find("exception"); exception != entry.end()) {
    const RemoteException thrown(exception->at("code"), exception->at("message"), exception->value("trace", ""));
    whole = bytesOf([&](vesk_payload* reply) { writeException(reply, thrown); });
  } else if (const auto reply = entry.find("reply"); reply != entry.end()) {
    whole = bytesOf([&](vesk_payload* payload) {
      vesk_write_i32(payload, 0);
      recorded.method->write(payload, *reply);
    });
  }
  if (entry.contains("truncatedTo")) whole.resize(std::min(whole.size(), entry.at("truncatedTo").get<std::size_t>()));
  if (whole.empty()) return;

  // Target and what it draws, by what the reply holds.
  constexpr unsigned char kTexts = 4;
  constexpr unsigned char kText = 3;
  constexpr unsigned char kNumber = 0;
  static const std::map<std::string, const char*> kRecords = {{"getDeviceInfo", "Device"},
                                                              {"getApplicationInfo", "Packages"},
                                                              {"getPackageInfo", "Packages"},
                                                              {"queryBroadcastReceivers", "Components"},
                                                              {"getRunningAppProcessesInfo", "Processes"},
                                                              {"getLaunchIntentForPackage", "Intent"}};
  constexpr std::size_t kExceptionBytes = 4;
  const std::string result = whole.size() > kExceptionBytes ? whole.substr(kExceptionBytes) : "";
  if (entry.contains("exception") || recorded.method->write == writeText) seeds.add("ReplyFrame", whole);
  if (entry.contains("exception") || result.empty()) return;
  const auto write = recorded.method->write;
  if (const auto record = kRecords.find(recorded.method->name); record != kRecords.end()) {
    seeds.add(record->second, result);
  } else if (write == writeText) {
    seeds.add("Primitives", result, {1, kText});
  } else if (write == writeTexts) {
    seeds.add("Primitives", result, {1, kTexts});
  } else if (write == writeFlag || write == writeInt32) {
    seeds.add("Primitives", result, {1, kNumber});
  }
}

void addNotification(Seeds& seeds, const RecordedEntry& recorded) {
  const CallbackMethod& method = *recorded.callback;
  const Json& arguments = recorded.entry.at("arguments");
  const std::string bytes = bytesOf([&](vesk_payload* payload) { method.write(payload, arguments); });
  const std::string message = bytesOf([&](vesk_payload* payload) {
    if (!method.descriptor.empty()) writeHeader(payload, method.descriptor);
    method.write(payload, arguments);
  });
  // In the order in which the target knows the endpoints.
  static const std::map<std::string, unsigned char> kEndpoints = {{"settingChanged", 0},   {"broadcast", 1},
                                                                  {"networkAvailable", 2}, {"networkLost", 2},
                                                                  {"directive", 3},        {"eventResult", 4}};
  seeds.add("Endpoints", message,
            {kEndpoints.at(method.name), static_cast<unsigned char>(method.answered ? 1 : 0),
             static_cast<unsigned char>(method.code), 0});
  if (method.name == "broadcast") seeds.add("Intent", bytes);
  if (method.name == "directive" || method.name == "eventResult") seeds.add("Assistant", bytes);
  if (method.name == "broadcast" && arguments.contains("extras")) {
    seeds.add("Bundles", bytesOf([&](vesk_payload* payload) { writeExtras(payload, arguments.at("extras")); }));
  }
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

std::size_t writeSeeds(const Recording& recording, const std::filesystem::path& folder) {
  Seeds seeds(folder);
  for (const RecordedEntry& recorded : recording.entries) {
    if (recorded.callback == nullptr) {
      addReply(seeds, recorded);
    } else {
      addNotification(seeds, recorded);
    }
  }
  return seeds.count();
}

}  // namespace orvel::sim
