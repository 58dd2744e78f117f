// The system's package manager service: which packages there are.
#pragma once

#include <string>
#include <vector>

#include "binder/Binder.h"

namespace orvel::service_apis {

// Threads: any.
class IOrvelPackageManager {
 public:
  // Blocks until the service is bound or given up. `runtime` is borrowed.
  explicit IOrvelPackageManager(void* runtime);

  // Replaces `packages` by the names of those that are installed. False, and `packages` empty, for an unbound service.
  // A failed call gives true and no packages, deliberately.
  bool getPackages(std::vector<std::string>& packages);

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
