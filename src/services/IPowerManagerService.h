// The power manager service: the screen and the wake locks.
#pragma once

#include "binder/Binder.h"

namespace orvel::service_apis {

// Every method is one transaction, unless it says otherwise. Threads: any.
class IPowerManagerService {
 public:
  // Blocks until the service is bound or given up. `runtime` is borrowed.
  explicit IPowerManagerService(void* runtime);

  // Whether the screen is interactive; false on failure.
  bool isInteractive();

  // Wakes the device and its screen; true when the service answered.
  bool wakeUpDevice();

  // The interface version of the service; 0 on failure.
  int getVersion();

  // Wakes the device in one of the service's ways, for `duration_ms`; true when the service answered. Needs interface
  // version 2.
  bool wakeUpDeviceCustom(int kind, long long duration_ms);

  // Asks for the version, then keeps the processor awake for 500 ms; false on failure and below interface version 2.
  bool acquirePartialWakeLock();

  bool acquireFullWakeLock();

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
