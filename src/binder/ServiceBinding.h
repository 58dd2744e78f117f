// The two ways to look a service up by name.
#pragma once

#include <memory>

#include "binder/IpcHandle.h"
#include "binder/OrvelLogger.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

// The connection layer's logger. Deliberately it carries the tag of the delegate service's proxy for all services.
extern const OrvelLogger& s_binder_logger;

// Returns the handle of a service of the own platform; null when it is not ready within 20 s, when libvesk refuses, and
// when a shutdown has begun or interrupts. The handle does not own the lookup's reference, which vesk_service_unbind
// drops. A bind that is given up stays pending in libvesk, and the handle that comes with a later callback stays bound.
// Threads: any, the run-loop thread too.
std::unique_ptr<vesk::IpcHandle> bind_to_orvel_service(void* runtime, const char* name);

// Returns the handle that the Android service manager has, which answers at once; null when it does not know the
// service, and once a shutdown has begun. The lookup's reference is as above. Threads: any.
std::unique_ptr<vesk::IpcHandle> bind_to_android_service(void* runtime, const char* name);

// For vesk_service_bind. `context` is the number of an awaited bind, not an address. Threads: any.
void service_bind_callback(void* runtime, void* context, const char* name, vesk_handle handle);

}  // namespace orvel::service_apis
