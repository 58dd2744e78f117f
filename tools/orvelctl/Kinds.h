// What can be watched, and how the client is asked for it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Session.h"

namespace orvelctl {

using orvel::service_apis::Subscription;

// Takes one change: its values, and the same as a line of text without control characters. Where the callbacks of the
// client run.
using Tell = std::function<void(const Json& values, const std::string& text)>;

// The broadcasts with data that are watched: of these MIME types and URI schemes.
struct DataFilter {
  std::vector<std::string> types;
  std::vector<std::string> schemes;
};

// One kind of change.
struct Kind {
  // Adds the subscriptions that it takes, which call a copy of `tell`; false when one was not taken.
  using Subscribe = std::function<bool(Client& client, const DataFilter& filter, const Tell& tell,
                                       std::vector<Subscription>& subscriptions)>;

  std::string name;  // with its key, "setting:volume"
  std::string about;
  Service service;  // that tells it
  Subscribe subscribe;
  bool asks = true;                         // whether the service is asked for it, and so must be there
  bool (Client::*unsubscribe)() = nullptr;  // where the service can be told of the end

  // The name without the key.
  std::string word() const { return name.substr(0, name.find(':')); }
};

// Returns what is wrong with the name of a kind; empty when there is such a kind.
std::string checkKind(const std::string& name);

// The kinds that need no key.
std::vector<std::string> kindNames();

// Those of the names, which checkKind() has accepted; for none all that need no key.
std::vector<Kind> kindsCalled(const std::vector<std::string>& names);

// "  name           the device has a new name", one line a kind.
std::string describeKinds();

}  // namespace orvelctl
