// Writes the library's messages to the Android log, under the tag of the module that logs.
//
// Every message begins with "%s:" and the name of the function that writes it, which the caller supplies; liblog
// formats it. Threads: any; the tag does not change.
#pragma once

#include <cstdarg>
#include <exception>
#include <string>

namespace orvel::service_apis {

// As printf: argument `format_index`, counted from 1 with `this` as the first, formats those from `first_argument` on;
// 0 for a va_list.
#define ORVEL_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

// The logger of one module, which is never destroyed: a thread may still be inside the library while the process ends.
// Levels: verbose, debug, info, warning, error.
class OrvelLogger {
 public:
  // The Android tag is "OrvelDelegateClient:" and `tag`.
  explicit OrvelLogger(std::string tag);
  OrvelLogger(const OrvelLogger&) = default;
  OrvelLogger& operator=(const OrvelLogger&) = delete;
  virtual ~OrvelLogger() = default;

  // The whole Android tag.
  std::string getTag() const { return m_tag; }

  void v(const char* format, ...) const ORVEL_PRINTF(2, 3);
  void d(const char* format, ...) const ORVEL_PRINTF(2, 3);
  void i(const char* format, ...) const ORVEL_PRINTF(2, 3);
  void w(const char* format, ...) const ORVEL_PRINTF(2, 3);
  void e(const char* format, ...) const ORVEL_PRINTF(2, 3);

  void v_va(const char* format, va_list arguments) const ORVEL_PRINTF(2, 0);
  void d_va(const char* format, va_list arguments) const ORVEL_PRINTF(2, 0);
  void i_va(const char* format, va_list arguments) const ORVEL_PRINTF(2, 0);
  void w_va(const char* format, va_list arguments) const ORVEL_PRINTF(2, 0);
  void e_va(const char* format, va_list arguments) const ORVEL_PRINTF(2, 0);

  // Write "message: what()".
  void v(const std::string& message, const std::exception& error) const;
  void d(const std::string& message, const std::exception& error) const;
  void i(const std::string& message, const std::exception& error) const;
  void w(const std::string& message, const std::exception& error) const;
  void e(const std::string& message, const std::exception& error) const;

 private:
  const std::string m_tag;
};

}  // namespace orvel::service_apis
