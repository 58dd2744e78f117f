#include "device/services/PackageInfo.h"

#include <utility>

#include "device/Intent.h"

namespace orvel::sim {
namespace {

void writeMetaData(vesk_payload* payload, const Json& metaData) {
  Json entries = Json::array();
  for (const auto& [key, value] : metaData.items()) {
    entries.push_back({{"key", key}, {"type", value.is_string() ? "string" : "int"}, {"value", value}});
  }
  // The length does not include itself.
  writeMeasured(payload, 0, [&] { writeExtras(payload, entries); });
}

// The two presence markers of a record; for an absent one the first alone, and false.
bool writeMarkers(vesk_payload* payload, const Json& record) {
  writeFlag(payload, !record.is_null());
  if (!record.is_null()) writeFlag(payload, true);
  return !record.is_null();
}

Json extra(const std::string& key, const char* type, const Json& value) {
  return {{"key", "android.intent.extra." + key}, {"type", type}, {"value", value}};
}

}  // namespace

void writeApplicationInfo(vesk_payload* reply, const Json& info) {
  if (!writeMarkers(reply, info)) return;
  writeNullTexts(reply, 9);
  writeZeros(reply, 3);  // lists
  writeZeros(reply, 10);
  writeNullTexts(reply, 3);
  writeZeros(reply, 1);
  writeOptional(reply, info.value("metaData", Json()), writeMetaData);
}

void writePackageInfo(vesk_payload* reply, const Json& info) {
  if (!writeMarkers(reply, info)) return;
  writeText(reply, info.at("package"));
  writeInt32(reply, info.at("versionCode"));
  writeText(reply, info.at("versionName"));
  writeInt64(reply, info.at("firstInstallMs"));
  writeInt64(reply, info.at("lastUpdateMs"));
  writeApplicationInfo(reply, info.at("application"));
}

void writeResolveInfos(vesk_payload* reply, const Json& components) {
  vesk_write_i32(reply, static_cast<std::int32_t>(components.size()));
  for (const Json& component : components) {
    writeMarkers(reply, component);  // of the record, and of what it embeds
    writeMarkers(reply, component);
    writeText(reply, component.at("package"));
    writeText(reply, component.at("class"));
    writeZeros(reply, 4);
  }
}

std::vector<Json> packageBroadcasts(const std::string& name, const Json& was, const Json& is) {
  std::vector<Json> broadcasts;
  const auto add = [&](const char* event, const Json& package, Json extras) {
    extras.insert(extras.begin(), extra("UID", "int", package.at("uid")));
    broadcasts.push_back({{"action", std::string("android.intent.action.PACKAGE_") + event},
                          {"data", "package:" + name},
                          {"extras", std::move(extras)}});
  };
  const auto dataRemoved = [](bool removed) { return extra("DATA_REMOVED", "bool", removed); };
  const auto replacing = [](bool replaced) { return extra("REPLACING", "bool", replaced); };
  const auto differs = [&](const char* key) { return was.at(key) != is.at(key); };

  if (was.is_null()) {
    add("ADDED", is, Json::array({replacing(false)}));
  } else if (is.is_null()) {
    add("REMOVED", was, Json::array({dataRemoved(true), replacing(false)}));
    add("FULLY_REMOVED", was, Json::array({dataRemoved(true), replacing(false)}));
  } else if (differs("versionCode") || differs("versionName") || differs("lastUpdateMs")) {
    add("REMOVED", was, Json::array({dataRemoved(false), replacing(true)}));
    add("ADDED", is, Json::array({replacing(true)}));
    add("REPLACED", is, Json::array({replacing(true)}));
  } else {
    add("CHANGED", is, Json::array());
  }
  return broadcasts;
}

}  // namespace orvel::sim
