#include "tools/cli/Colour.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace orvel::cli {
namespace {

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool showsColours(int stream) {
  const std::string_view terminal = variable("TERM");
  return isatty(stream) != 0 && variable("NO_COLOR").empty() && !terminal.empty() && terminal != "dumb";
}

}  // namespace

std::string coloured(int stream, Colour colour, const std::string& text) {
  if (!showsColours(stream)) return text;
  constexpr const char* kBegin[] = {"\x1b[1;31m", "\x1b[33m", "\x1b[32m", "\x1b[2m"};
  return kBegin[static_cast<int>(colour)] + text + "\x1b[0m";
}

}  // namespace orvel::cli
