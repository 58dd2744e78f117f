// What orvelctl wait waits for: "screen=on", "setting:volume_alarm!=0", "power".
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"

namespace orvelctl {

// What can be waited for, beside the device and its services.
struct Subject {
  std::string name;                 // with a colon behind it: a key follows
  std::vector<std::string> values;  // that it may have; none: any
  Service service;
  bool told;  // by the kind of the same name of orvelctl watch
  std::function<std::optional<std::string>(Client& client, const std::string& key)>
      ask;  // empty for what cannot be asked
};

// One condition, and how its subject stands.
struct Condition {
  std::string words;                 // "setting:k" of setting:k=5
  bool equal = true;                 // or must it differ
  std::string value;                 // that it is compared with
  std::optional<Service> link;       // of SERVICE=...
  const Subject* subject = nullptr;  // null for those and for the device
  std::string key{};
  std::optional<std::string> now{};  // nothing while it is not known
  std::string unknown{};             // why
  bool subscribed = false;           // to its changes
  bool changed = false;              // since it was asked
  std::uint64_t asked_epoch{};       // of its service

  bool holds() const;
  // "screen is on"
  std::string text() const;
};

// `state` is that of a service that is given alone. Throws CLI::ValidationError.
Condition readCondition(const std::string& word, const std::string& state);

// What completes a condition; '@' as in orvel::cli::Values.
std::vector<std::string> conditionWords();

}  // namespace orvelctl
