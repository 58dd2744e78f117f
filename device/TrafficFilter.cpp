#include "device/TrafficFilter.h"

#include <fnmatch.h>

#include <algorithm>

#include "device/Service.h"

namespace orvel::sim {
namespace {

bool isLike(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

// A service, a method or notification, or both; a transaction that no method has is called by its number.
bool isLike(const std::string& pattern, const std::string& service, const std::string& name) {
  return isLike(pattern, service) || isLike(pattern, name) || isLike(pattern, service + "." + name);
}

std::vector<std::string> namesOf(const ServiceType& type) {
  std::vector<std::string> names;
  for (const Method& method : type.methods) names.push_back(method.name);
  for (const CallbackMethod* callback : type.callbacks) names.push_back(callback->name);
  return names;
}

// Also a transaction that no method has, by its number.
bool isKnown(const std::string& pattern, const ServiceType& type) {
  const std::vector<std::string> names = namesOf(type);
  const auto isIt = [&](const std::string& name) { return isLike(pattern, type.id, name); };
  if (isLike(pattern, type.id) || std::any_of(names.begin(), names.end(), isIt)) return true;
  const std::string own = type.id + ".";
  return pattern.rfind(own, 0) == 0 && pattern.size() > own.size() &&
         pattern.find_first_not_of("0123456789", own.size()) == std::string::npos;
}

void expectKnown(const std::string& pattern) {
  std::vector<std::string> services;
  std::vector<std::string> known;
  for (const ServiceType* type : allServices()) {
    if (isKnown(pattern, *type)) return;
    if (pattern.rfind(type->id + ".", 0) == 0) {
      const std::string name = pattern.substr(type->id.size() + 1);
      throw UnknownName(type->id + " has nothing that is called '" + name + "'", name, namesOf(*type));
    }
    services.push_back(type->id);
    known.push_back(type->id);
    for (const std::string& name : namesOf(*type)) {
      known.push_back(name);
      known.push_back(type->id + "." + name);
    }
  }
  throw UnknownName(
      "no service, method or notification is called '" + pattern + "'; the services are " + joined(services), pattern,
      known);
}

std::string nameOf(const Json& entry) {
  const auto notification = entry.find("notification");
  if (notification != entry.end()) return *notification;
  const Json& method = entry.at("method");
  return method.is_string() ? method.get<std::string>() : entry.at("code").dump();
}

}  // namespace

TrafficFacts::TrafficFacts(const Json& entry)
    : service(entry.at("service")),
      name(nameOf(entry)),
      both(service + "." + name),
      pid(entry.at("pid").dump()),
      client(entry.value("client", std::string())),
      failed(hasFailed(entry)),
      faulted(entry.contains("faults")),
      durationMs(entry.value("durationMs", 0.0)) {}

TrafficFilter::TrafficFilter(TrafficConditions conditions)
    : m_conditions(std::move(conditions)),
      m_names(patternsOf(m_conditions.names)),
      m_notNames(patternsOf(m_conditions.notNames)) {}

std::vector<TrafficFilter::Pattern> TrafficFilter::patternsOf(const std::vector<std::string>& names) {
  std::vector<Pattern> patterns;
  for (const std::string& name : names) {
    expectKnown(name);
    patterns.push_back({name, name.find_first_of("*?[\\") == std::string::npos});
  }
  return patterns;
}

// fnmatch takes long, and each page that is open has every entry matched.
bool TrafficFilter::fits(const std::vector<Pattern>& patterns, const TrafficFacts& entry) {
  return std::any_of(patterns.begin(), patterns.end(), [&](const Pattern& pattern) {
    const auto is = [&](const std::string& text) {
      return pattern.isPlain ? pattern.text == text : isLike(pattern.text, text);
    };
    return is(entry.service) || is(entry.name) || is(entry.both);
  });
}

bool TrafficFilter::matches(const TrafficFacts& entry) const {
  const TrafficConditions& wanted = m_conditions;
  if (!m_names.empty() && !fits(m_names, entry)) return false;
  if (fits(m_notNames, entry)) return false;
  const auto isOf = [&](const std::string& client) { return client == entry.pid || client == entry.client; };
  if (!wanted.clients.empty() && std::none_of(wanted.clients.begin(), wanted.clients.end(), isOf)) return false;
  if (wanted.failed && !entry.failed) return false;
  if (wanted.faulted && !entry.faulted) return false;
  return !wanted.slowerThan || entry.durationMs > *wanted.slowerThan;
}

bool TrafficFilter::isOpen() const {
  const TrafficConditions& wanted = m_conditions;
  return wanted.names.empty() && wanted.notNames.empty() && wanted.clients.empty() && !wanted.failed &&
         !wanted.faulted && !wanted.slowerThan;
}

bool hasFailed(const Json& entry) {
  const auto has = [&](const char* key) { return entry.contains(key); };
  return has("exception") || has("error") || has("hangs") || has("drops") || has("truncatedTo");
}

}  // namespace orvel::sim
