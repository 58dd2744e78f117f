// The entries of the traffic as the records that a test sees.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "device/Wire.h"
#include "orvel/testing/TestDevice.h"

namespace orvel::testing {

// What the device adds to the entries of its traffic.
constexpr char kTime[] = "sinceStartNs";
constexpr char kSequence[] = "sequence";
constexpr char kMessage[] = "message";  // the transport's number of a notification that was delivered

std::string textIn(const sim::Json& value);

// The name of a method, or of none that the service has; `key` is that of the name.
std::string nameIn(const sim::Json& entry, const char* key);

Call callIn(const sim::Json& entry);

// `thrown` is what the client's callback threw.
Notification notificationIn(const sim::Json& entry, const std::optional<std::string>& thrown);

// The traffic holds what has ended in the order of the ends.
template <typename Record>
void sortByBeginning(std::vector<Record>& records) {
  std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a.sequence < b.sequence; });
}

}  // namespace orvel::testing
