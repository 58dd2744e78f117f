#include "tools/cli/Options.h"

#include <charconv>
#include <string>
#include <system_error>

namespace orvel::cli {
namespace {

std::string checkSeconds(const std::string& word) {
  double seconds = 0;
  const char* const end = word.data() + word.size();
  const auto [read, error] = std::from_chars(word.data(), end, seconds);
  if (error == std::errc() && read == end && seconds >= 0.001 && seconds <= 1e6) return {};
  return "'" + word + "' is not a number of seconds from 0.001 to 1000000";
}

}  // namespace

CLI::Option* inSeconds(CLI::Option* option) {
  return option->check(checkSeconds, "", "")->type_name("SECONDS");
}

}  // namespace orvel::cli
