#include "device/Faults.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "device/Service.h"

namespace orvel::sim {
namespace {

// Of a limit.
constexpr char kArguments[] = "arguments";
constexpr char kClient[] = "client";
constexpr char kCall[] = "call";

Shape exceptionShape() {
  return Shape::object({
      {"code", Shape::number(), kIllegalStateException, "exception code"},
      {"message", Shape::text(), "told to fail by orvel-sim", "what the exception says"},
      {"trace", Shape::text(), "", "stack trace; none is sent when empty"},
  });
}

// Which calls a fault is for: those of which everything is true that is given.
Shape limitShape(const Method* method) {
  Shape arguments = Shape::map(Shape::text());
  if (method != nullptr) {
    std::vector<Field> fields;
    for (const Argument& argument : method->arguments) {
      fields.push_back({argument.name, Shape::text(), std::nullopt, "its value; of numbers and lists as JSON"});
    }
    arguments = Shape::object(std::move(fields));
  }
  return Shape::object({
      {kArguments, std::move(arguments), std::nullopt, "calls with these arguments"},
      {kClient, Shape::text(), std::nullopt, "calls of that process: its number, or the name of its program"},
      {kCall, Shape::number(1), std::nullopt, "of the others, that one in their order, from 1"},
  });
}

Shape faultShape(const Method* method) {
  std::vector<Field> fields;
  std::vector<Field> limits;
  const Shape limit = limitShape(method);
  for (const FaultKind& kind : faultKinds()) {
    fields.push_back({kind.key, kind.shape, std::nullopt, kind.about});
    limits.push_back({kind.key, limit, std::nullopt, "which calls it is for"});
  }
  fields.push_back({kOnly, Shape::object(std::move(limits)), std::nullopt, "which calls the faults are for"});
  return Shape::object(std::move(fields));
}

// The errno value of "EPIPE" or "-EPIPE", negated; 0 for none.
int errorCalled(const std::string& word) {
  constexpr int kMost = 4095;
  const std::string name = word.substr(word.find_first_not_of('-') == 1 ? 1 : 0);
  for (int error = 1; error <= kMost; ++error) {
    const char* const known = strerrorname_np(error);
    if (known != nullptr && name == known) return -error;
  }
  return 0;
}

bool isOff(const Json& value) {
  return value == false;
}

// A limit says of numbers and lists what they look like in the traffic.
bool hasArguments(const Call& call, const Json& wanted) {
  return std::all_of(wanted.items().begin(), wanted.items().end(), [&](const auto& each) {
    const auto given = call.arguments.find(each.key());
    if (given == call.arguments.end()) return false;
    return *given == each.value() || given->dump() == each.value().template get_ref<const std::string&>();
  });
}

// But for the number of the call.
bool isFor(const Json& only, const Call& call) {
  if (only.contains(kClient) && only[kClient] != call.client && only[kClient] != std::to_string(call.caller)) {
    return false;
  }
  return !only.contains(kArguments) || hasArguments(call, only[kArguments]);
}

std::string turnOf(const std::string& method, const std::string& kind) {
  return method + '/' + kind;
}

Json valueAt(const Json& faults, const std::string& method, const std::string& key) {
  const auto set = faults.find(method);
  return set == faults.end() ? Json() : set->value(key, Json());
}

Json limitAt(const Json& faults, const std::string& method, const std::string& key) {
  const Json limits = valueAt(faults, method, kOnly);
  return limits.is_null() ? Json() : limits.value(key, Json());
}

}  // namespace

const std::vector<FaultKind>& faultKinds() {
  static const std::vector<FaultKind> kinds = {
      {"exception", "exception", "Let a service answer with an exception", "[on|off]", "on or off", exceptionShape(),
       complete(exceptionShape(), Json::object())},
      {"error", "error", "Let calls of a service fail with an error of the message library", "[CODE|on|off]",
       "an error such as EPIPE or -32, on or off", errorShape(), -EREMOTEIO},
      {"truncateTo", "truncate", "Cut the replies of a service after some bytes", "BYTES|off",
       "a number of bytes, or off", Shape::number(0), std::nullopt},
      {"delayMs", "delay", "Let a service answer late", "MILLISECONDS|off", "a number of milliseconds, or off",
       Shape::number(0), std::nullopt},
      {"hang", "hang", "Let a service not answer at all", "[on|off]", "on or off", Shape::flag(), true},
      {"drop", "drop", "Let a service close the connection of who calls it, in place of an answer",
       "[N|on|off]; N: only of the next so many calls", "a number of calls, on or off", Shape::flagOrNumber(1), true},
  };
  return kinds;
}

const FaultKind& faultKindCalled(const std::string& name) {
  std::vector<std::string> known;
  for (const FaultKind& kind : faultKinds()) {
    if (kind.key == name || kind.verb == name) return kind;
    known.push_back(kind.verb);
  }
  throw ScenarioError("no fault is called '" + name + "'; there are " + joined(known), name, known);
}

Json faultValueOf(const FaultKind& kind, const std::string& word) {
  if (kind.on && (word.empty() || word == "on")) return *kind.on;
  const bool isExact = kind.shape.kind == Shape::Kind::kFlag || kind.shape.kind == Shape::Kind::kObject;
  if (kind.key == "error") {
    if (const int error = errorCalled(word); error != 0) return error;
  }
  try {
    Json value = isExact ? Json(false) : valueOf(kind.shape, word, kind.verb);
    if (!isOff(value)) return value;
  } catch (const ScenarioError&) {
  }
  throw ScenarioError(kind.verb + ": expected " + kind.expected + ", not '" + word + "'");
}

Shape faultsShape(const ServiceType& type) {
  std::vector<Field> methods = {{kEveryMethod, faultShape(nullptr), std::nullopt, "every other method"}};
  for (const Method& method : type.methods) methods.push_back({method.name, faultShape(&method), std::nullopt, {}});
  return Shape::object(std::move(methods));
}

std::vector<Fault> faultsIn(const Json& faults) {
  std::vector<Fault> found;
  for (const auto& [method, set] : faults.items()) {
    for (const FaultKind& kind : faultKinds()) {
      const Json value = set.value(kind.key, Json());
      if (!value.is_null() && !isOff(value)) found.push_back({method, &kind, value, limitAt(faults, method, kind.key)});
    }
  }
  return found;
}

std::vector<Fault> faultsFor(const Json& faults, const Call& call) {
  std::vector<Fault> met;
  if (faults.empty()) return met;
  const std::string own = call.method == nullptr ? std::string() : call.method->name;
  for (const FaultKind& kind : faultKinds()) {
    for (const std::string& method : {own, std::string(kEveryMethod)}) {
      const Json value = valueAt(faults, method, kind.key);
      if (value.is_null()) continue;
      const Json only = limitAt(faults, method, kind.key);
      if (!only.is_null() && !isFor(only, call)) continue;
      if (!only.is_null() && only.contains(kCall) && call.turns.count(turnOf(method, kind.key)) == 0) continue;
      if (!isOff(value)) met.push_back({method, &kind, value, only});
      break;
    }
  }
  return met;
}

std::set<std::string> FaultCounts::turnsOf(const Json& faults, const Call& call) {
  std::set<std::string> turns;
  for (const Fault& fault : faultsIn(faults)) {
    const bool isOfCall = fault.method == kEveryMethod || (call.method != nullptr && fault.method == call.method->name);
    if (!isOfCall || fault.only.is_null() || !fault.only.contains(kCall) || !isFor(fault.only, call)) continue;
    const std::string turn = turnOf(fault.method, fault.kind->key);
    if (fault.only[kCall] == ++m_calls[turn]) turns.insert(turn);
  }
  return turns;
}

void FaultCounts::changed(const Json& was, const Json& is) {
  for (auto counter = m_calls.begin(); counter != m_calls.end();) {
    const std::size_t slash = counter->first.find('/');
    const std::string method = counter->first.substr(0, slash);
    const std::string key = counter->first.substr(slash + 1);
    const bool same =
        valueAt(was, method, key) == valueAt(is, method, key) && limitAt(was, method, key) == limitAt(is, method, key);
    counter = same ? std::next(counter) : m_calls.erase(counter);
  }
}

}  // namespace orvel::sim
