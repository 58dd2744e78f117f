// Faults in words: those of the command line, and those in which it shows what is in force.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "device/Faults.h"

namespace orvel::sim {

// Where a fault is meant to be, and what it is to become.
struct FaultTarget {
  const ServiceType* service = nullptr;  // null: everywhere
  std::string method;                    // empty: none was said
  std::string value;                     // "off", or what the kind takes; empty: none was said
};

// Takes the words SERVICE [METHOD] [VALUE] apart. Throws ScenarioError for a word that is none of them.
FaultTarget faultTargetOf(const FaultKind& kind, const std::vector<std::string>& words);

// Which calls a fault is for, as options of a command line say it.
struct LimitWords {
  std::vector<std::string> arguments;  // NAME=VALUE
  std::string client;
  std::optional<std::int64_t> call;

  bool empty() const { return arguments.empty() && client.empty() && !call; }
};

// As the scenario has it; null for no limit. Throws ScenarioError for an argument that the target's methods do not
// have.
Json limitOf(const LimitWords& words, const FaultTarget& target);

// "delegate getDeviceName on --client kitchen  # struck 3 times", of a fault as the status has it: behind the verb, the
// words that would set it.
std::string faultInWords(const Json& fault);

// "delegate 4000 3", of a service that flaps: behind the verb, the words that would make it.
std::string flapInWords(const std::string& service, const Json& flap);

// What the status says of a fault that `reset` has ended, or of one that flapped, with the verb in front.
std::string endedInWords(const Json& ended);

}  // namespace orvel::sim
