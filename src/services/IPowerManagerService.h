// The power manager service: the screen and the wake locks.
#pragma once

#include "binder/Binder.h"

namespace orvel::service_apis {

// Every method is one transaction, except where noted. Threads: any.
class IPowerManagerService {
 public:
  static constexpr Service kService = Service::kPower;

  // Blocks until the service is bound or given up, unless `bind` says otherwise. `runtime` is borrowed.
  explicit IPowerManagerService(void* runtime, Binder::Bind bind = Binder::Bind::kNow);

  // True when the screen is interactive; false when it is not and on failure.
  bool isInteractive();

  // True when the service answered. Wakes the device and its screen.
  bool wakeUpDevice();

  // The interface version of the service; 0 on failure.
  int getVersion();

  // True when the service answered. Wakes the device in one of the service's ways, for `duration_ms`. Needs interface
  // version 2.
  bool wakeUpDeviceCustom(int kind, long long duration_ms);

  // True when the service answered; false on failure and below interface version 2. Asks for the version, then keeps
  // the processor awake for 500 ms.
  bool acquirePartialWakeLock();

  // As wakeUpDevice().
  bool acquireFullWakeLock();

  Binder& binder() { return m_binder; }

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
