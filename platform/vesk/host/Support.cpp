#include "Support.h"

#include <cstdarg>
#include <cstdio>

namespace vesk {

void complain(const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line above begins it
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "vesk: %s\n", text);
}

}  // namespace vesk
