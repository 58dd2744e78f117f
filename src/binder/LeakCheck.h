// Memory that is left allocated on purpose.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORVEL_LEAK_CHECK 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define ORVEL_LEAK_CHECK 1
#endif

#ifdef ORVEL_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace orvel::service_apis {

// While one exists, the leak checker ignores what its thread allocates. Does nothing in builds without the checker.
class LeakCheckPause {
 public:
#ifdef ORVEL_LEAK_CHECK
  LeakCheckPause() {
    __lsan_disable();
  }
  ~LeakCheckPause() {
    __lsan_enable();
  }
#else
  LeakCheckPause() {}   // NOLINT(modernize-use-equals-default): a variable of this type must not look unused
  ~LeakCheckPause() {}  // NOLINT(modernize-use-equals-default)
#endif
  LeakCheckPause(const LeakCheckPause&) = delete;
  LeakCheckPause& operator=(const LeakCheckPause&) = delete;
};

}  // namespace orvel::service_apis
