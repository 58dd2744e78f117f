// Hands the messages of OrvelLogger to liblog, each level with its Android priority.
#pragma once

#include <cstdarg>
#include <exception>
#include <string>

namespace orvel::service_apis {

class OrvelLoggerImpl {
 public:
  OrvelLoggerImpl() = delete;

  static void v(const char* tag, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
  static void d(const char* tag, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
  static void i(const char* tag, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
  static void w(const char* tag, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
  static void e(const char* tag, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

  static void v(const char* tag, const std::string& message, const std::exception& error);
  static void d(const char* tag, const std::string& message, const std::exception& error);
  static void i(const char* tag, const std::string& message, const std::exception& error);
  static void w(const char* tag, const std::string& message, const std::exception& error);
  static void e(const char* tag, const std::string& message, const std::exception& error);
};

}  // namespace orvel::service_apis
