// The system's package manager service: the names of the installed packages.
#pragma once

#include <string>
#include <vector>

#include "binder/Binder.h"

namespace orvel::service_apis {

// Threads: any.
class IOrvelPackageManager {
 public:
  static constexpr Service kService = Service::kPackages;

  // Blocks until the service is bound or given up, unless `bind` says otherwise. `runtime` is borrowed.
  explicit IOrvelPackageManager(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  // True when `packages` was replaced by the names of those that are installed; deliberately true, with no packages,
  // when the call failed. False, and `packages` empty, for an unbound service.
  bool getPackages(std::vector<std::string>& packages);

  Binder& binder() { return m_binder; }

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
