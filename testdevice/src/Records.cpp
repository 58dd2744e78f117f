#include "Records.h"

#include <chrono>

namespace orvel::testing {

using sim::Json;

namespace {

// What came in place of a whole reply.
std::string failureIn(const Json& entry) {
  if (const auto thrown = entry.find("exception"); thrown != entry.end()) {
    return "exception " + thrown->at("code").dump() + ": " + thrown->at("message").get<std::string>();
  }
  if (const auto error = entry.find("error"); error != entry.end()) return "error " + error->dump();
  if (const auto size = entry.find("truncatedTo"); size != entry.end()) return "cut to " + size->dump() + " bytes";
  if (entry.contains("hangs")) return "hangs";
  return entry.contains("drops") ? "drops" : "";
}

std::chrono::nanoseconds timeIn(const Json& entry) {
  return std::chrono::nanoseconds(entry.at(kTime));
}

}  // namespace

std::string textIn(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string nameIn(const Json& entry, const char* key) {
  const Json& name = entry.at(key);
  return name.is_null() ? "transaction " + entry.at("code").dump() : name.get<std::string>();
}

Call callIn(const Json& entry) {
  const std::chrono::duration<double, std::milli> duration(entry.value("durationMs", 0.0));
  return {entry.at("service"),
          nameIn(entry, "method"),
          textIn(entry.at("arguments")),
          entry.contains("reply") ? textIn(entry.at("reply")) : "",
          failureIn(entry),
          std::chrono::duration_cast<std::chrono::nanoseconds>(duration),
          timeIn(entry),
          entry.at(kSequence)};
}

Notification notificationIn(const Json& entry, const std::optional<std::string>& thrown) {
  return {entry.at("service"),
          nameIn(entry, "notification"),
          textIn(entry.at("arguments")),
          thrown ? "exception: " + *thrown : failureIn(entry),
          timeIn(entry),
          entry.at(kSequence)};
}

}  // namespace orvel::testing
