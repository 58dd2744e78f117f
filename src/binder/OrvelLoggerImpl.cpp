#include "binder/OrvelLoggerImpl.h"

#include <android/log.h>

namespace orvel::service_apis {

// One level: its function and its Android priority.
#define ORVEL_LOG_LEVEL(level, priority)                                                                  \
  void OrvelLoggerImpl::level(const char* tag, const char* format, va_list arguments) {                   \
    __android_log_vprint(priority, tag, format, arguments);                                               \
  }                                                                                                       \
  void OrvelLoggerImpl::level(const char* tag, const std::string& message, const std::exception& error) { \
    __android_log_print(priority, tag, "%s: %s", message.c_str(), error.what());                          \
  }

ORVEL_LOG_LEVEL(v, ANDROID_LOG_VERBOSE)
ORVEL_LOG_LEVEL(d, ANDROID_LOG_DEBUG)
ORVEL_LOG_LEVEL(i, ANDROID_LOG_INFO)
ORVEL_LOG_LEVEL(w, ANDROID_LOG_WARN)
ORVEL_LOG_LEVEL(e, ANDROID_LOG_ERROR)

}  // namespace orvel::service_apis
