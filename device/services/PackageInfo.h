// What the delegate service says of packages: the records in its replies, and the broadcasts of what happened to them.
#pragma once

#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

// {"package", "metaData"}; null: absent. Without meta-data, or with none, there is no bundle.
void writeApplicationInfo(vesk_payload* reply, const Json& info);

// {"package", "versionCode", "versionName", "firstInstallMs", "lastUpdateMs", "application"}; null: absent.
void writePackageInfo(vesk_payload* reply, const Json& info);

// A list of {"package", "class"}.
void writeResolveInfos(vesk_payload* reply, const Json& components);

// In the order in which a package manager sends them; `was` is null for a new package, `is` for one that is gone.
std::vector<Json> packageBroadcasts(const std::string& name, const Json& was, const Json& is);

}  // namespace orvel::sim
