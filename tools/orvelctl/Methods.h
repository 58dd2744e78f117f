// The public methods of the client, as `orvelctl list`, `describe` and `call` know them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Session.h"

namespace orvelctl {

struct Argument {
  std::string name;
  std::string type;
  bool required = true;
};

struct Method {
  std::string name;                  // as the public header declares it
  std::optional<Service> service{};  // that it asks
  std::string about{};
  std::vector<Argument> arguments{};
  std::string result{};  // its type
  // The arguments of an example that succeeds on every device, JSON; empty for none.
  std::string example{};
  std::string command{};  // of orvelctl that does the same, with the example's arguments
  // Reads the arguments, a JSON object, which may throw CLI::ValidationError, and returns what makes the call and
  // prints its result. Empty for a method that tells by callback.
  std::function<std::function<void(Session&)>(const Json& arguments)> call{};

  // "delegate.getDeviceName", "client.isMaroConnected" where no service is asked.
  std::string path() const { return std::string(service ? nameOf(*service) : "client") + "." + name; }

  // A command line that calls it, or, by callback, waits for what it tells.
  std::string exampleLine() const;
};

// In the order of the services.
const std::vector<Method>& methods();

// The method of that name or path; throws CLI::ValidationError, which names those that are like it.
const Method& methodCalled(const std::string& name);

}  // namespace orvelctl
