// The delegate service: the device's identity and its secure settings.
#pragma once

#include <string>

#include "binder/Binder.h"
#include "parcel/DeviceInfo.h"

namespace orvel::service_apis {

// Every query is one transaction. An unbound service, a failed call and a remote exception all read as the empty value.
// Threads: any.
class IDelegateService {
 public:
  // Blocks until the service is bound or given up. `context` is the libvesk runtime, borrowed.
  explicit IDelegateService(void* context);

  DeviceInfo getDeviceInfo();

  // The preferred marketplace.
  std::string getPFM();

  // The country of residence.
  std::string getCOR();

  // The owner's directed identifier; empty also when the service answers "<unknown>".
  std::string getDirectedId();

  std::string getDeviceName();

  // The device serial number.
  std::string getDSNV2();

  // The value of a secure setting; empty also when it is not set, and for a null or empty key, which is not sent.
  std::string getSecureSetting(const char* key);

 private:
  Binder m_binder;
};

}  // namespace orvel::service_apis
