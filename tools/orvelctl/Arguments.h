// The arguments of the client's methods as JSON: how each type is called, read and shown.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Session.h"
#include "orvel/AssistantEvent.h"
#include "orvel/OrvelIntent.h"
#include "orvel/TarselMetricEvent.h"

namespace orvelctl {

using orvel::service_apis::AssistantEvent;
using orvel::service_apis::OrvelIntent;
using orvel::service_apis::TarselMetricEvent;

// Reads a value from the JSON of an argument; `where` names it in what the readers throw, CLI::ValidationError.
void readArgument(const Json& json, const std::string& where, std::string& value);
void readArgument(const Json& json, const std::string& where, int& value);
void readArgument(const Json& json, const std::string& where, long long& value);
void readArgument(const Json& json, const std::string& where, bool& value);
void readArgument(const Json& json, const std::string& where, std::vector<std::string>& value);
void readArgument(const Json& json, const std::string& where, OrvelIntent& value);
void readArgument(const Json& json, const std::string& where, AssistantEvent& value);
void readArgument(const Json& json, const std::string& where, TarselMetricEvent& value);

// What describe calls a type.
constexpr const char* typeName(const std::string*) {
  return "text";
}
constexpr const char* typeName(const int*) {
  return "integer of 32 bits";
}
constexpr const char* typeName(const long long*) {
  return "integer of 64 bits";
}
constexpr const char* typeName(const bool*) {
  return "true or false";
}
constexpr const char* typeName(const std::vector<std::string>*) {
  return "list of texts";
}
constexpr const char* typeName(const std::optional<std::string>*) {
  return "text, or null";
}
constexpr const char* typeName(const OrvelIntent*) {
  return "intent";
}
constexpr const char* typeName(const AssistantEvent*) {
  return "event";
}
constexpr const char* typeName(const TarselMetricEvent*) {
  return "metric";
}
constexpr const char* typeName(const void*) {
  return "nothing";
}

// The types that are objects, with the members that each may have; lines for help.
extern const char kObjectTypes[];

// Throws CLI::ValidationError for a member that is not `known`.
void refuseOthers(const Json& object, const std::string& where, const std::vector<std::string>& known);

}  // namespace orvelctl
