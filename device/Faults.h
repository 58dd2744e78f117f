// How calls of a service are made to fail: the kinds of faults, which calls each is limited to, and how often.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "device/Shape.h"
#include "device/Wire.h"

namespace orvel::sim {

struct Call;
struct Method;
struct ServiceType;

// One name stands for every method.
constexpr char kEveryMethod[] = "*";
// Beside the faults of a method: which calls each is limited to.
constexpr char kOnly[] = "only";

// A way to fail.
struct FaultKind {
  std::string key;         // in the scenario
  std::string verb;        // of orvel-sim
  std::string about;       // "Let a service not answer at all"
  std::string usage;       // of its value: "[on|off]"
  std::string expected;    // the same in words: "on or off"
  Shape shape;             // of its value
  std::optional<Json> on;  // the value that "on" stands for; nothing: it takes a number
};

const std::vector<FaultKind>& faultKinds();

// By key or verb. Throws ScenarioError, which lists what there is.
const FaultKind& faultKindCalled(const std::string& name);

// The value that a word stands for. Throws ScenarioError for one that is none.
Json faultValueOf(const FaultKind& kind, const std::string& word);

// The shape of a service's faults: for each of its methods, or under "*" for every method.
Shape faultsShape(const ServiceType& type);

// A fault that is set.
struct Fault {
  std::string method;  // or "*"
  const FaultKind* kind;
  Json value;
  Json only;  // null: it has no limit
};

// Those in the faults of a service, in their order.
std::vector<Fault> faultsIn(const Json& faults);

// The faults of a service that are for the call: of each kind that of its method, else that of every method.
std::vector<Fault> faultsFor(const Json& faults, const Call& call);

// Counts the calls that limited faults are for, in one life of a service.
class FaultCounts {
 public:
  // The methods and kinds of the faults whose limit ends with a number, and of which it is the call's turn. Called once
  // for each call.
  std::set<std::string> turnsOf(const Json& faults, const Call& call);

  // A fault that has changed counts its calls from the start.
  void changed(const Json& was, const Json& is);

 private:
  std::map<std::string, std::uint64_t> m_calls;  // by method and kind
};

}  // namespace orvel::sim
