#include "binder/OrvelLogger.h"

#include <utility>

#include "binder/OrvelLoggerImpl.h"

namespace orvel::service_apis {

OrvelLogger::OrvelLogger(std::string tag) : m_tag("OrvelDelegateClient:" + std::move(tag)) {}

// The three forms of one level.
#define ORVEL_LOG_LEVEL(level)                                                             \
  void OrvelLogger::level(const char* format, ...) const {                                 \
    va_list arguments;                                                                     \
    va_start(arguments, format);                                                           \
    level##_va(format, arguments);                                                         \
    va_end(arguments);                                                                     \
  }                                                                                        \
  void OrvelLogger::level##_va(const char* format, va_list arguments) const {              \
    OrvelLoggerImpl::level(m_tag.c_str(), format, arguments);                              \
  }                                                                                        \
  void OrvelLogger::level(const std::string& message, const std::exception& error) const { \
    OrvelLoggerImpl::level(m_tag.c_str(), message, error);                                 \
  }

ORVEL_LOG_LEVEL(v)
ORVEL_LOG_LEVEL(d)
ORVEL_LOG_LEVEL(i)
ORVEL_LOG_LEVEL(w)
ORVEL_LOG_LEVEL(e)

}  // namespace orvel::service_apis
