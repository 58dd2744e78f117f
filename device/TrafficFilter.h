// Chooses entries of the traffic: one predicate for the command line, for recordings and for the page.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/Shape.h"
#include "device/Wire.h"

namespace orvel::sim {

// What an entry must be to be chosen: everything that is given. Names are "SERVICE", "SERVICE.METHOD" or "METHOD",
// where a notification counts as a method, and * stands for any characters.
struct TrafficConditions {
  std::vector<std::string> names = {};     // one of them
  std::vector<std::string> notNames = {};  // none of them
  std::vector<std::string> clients = {};   // of one of them: its process number, or the name of its program
  bool failed = false;
  bool faulted = false;                   // changed by a fault of the device
  std::optional<double> slowerThan = {};  // milliseconds
};

// A name that nothing has.
struct UnknownName : ScenarioError {
  UnknownName(const std::string& what, std::string given, std::vector<std::string> there)
      : ScenarioError(what), name(std::move(given)), known(std::move(there)) {}

  std::string name;
  std::vector<std::string> known;  // what there is, spelled as the name was to be
};

// What filters ask of an entry, for those who have it matched by many.
struct TrafficFacts {
  explicit TrafficFacts(const Json& entry);

  std::string service;
  std::string name;  // of the method or notification, or the number of the transaction
  std::string both;  // "SERVICE.NAME"
  std::string pid;
  std::string client;
  bool failed;
  bool faulted;
  double durationMs;
};

class TrafficFilter {
 public:
  // Throws UnknownName.
  explicit TrafficFilter(TrafficConditions conditions);

  bool matches(const Json& entry) const { return isOpen() || matches(TrafficFacts(entry)); }
  bool matches(const TrafficFacts& entry) const;

  // Whether it chooses every entry.
  bool isOpen() const;

 private:
  struct Pattern {
    std::string text;
    bool isPlain;
  };

  static std::vector<Pattern> patternsOf(const std::vector<std::string>& names);
  static bool fits(const std::vector<Pattern>& patterns, const TrafficFacts& entry);

  TrafficConditions m_conditions;
  std::vector<Pattern> m_names;
  std::vector<Pattern> m_notNames;
};

// Whether the call was answered by something else than a result, or the notification did not reach its client.
bool hasFailed(const Json& entry);

}  // namespace orvel::sim
