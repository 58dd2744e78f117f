// The activity manager service: the processes of the applications.
#pragma once

#include <memory>
#include <vector>

#include "binder/Binder.h"
#include "parcel/RunningAppProcessInfo.h"

namespace orvel::service_apis {

// Threads: any.
class IActivityManager {
 public:
  static constexpr Service kService = Service::kActivity;

  // Blocks until the service is bound or given up, unless `bind` says otherwise. `runtime` is borrowed.
  explicit IActivityManager(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  // True when `processes` was replaced by those that run; false, and `processes` empty, on failure.
  bool getRunningAppProcessesInfo(std::vector<std::unique_ptr<RunningAppProcessInfo>>& processes);

  Binder& binder() { return m_binder; }

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
