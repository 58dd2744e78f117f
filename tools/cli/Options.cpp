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

CLI::Option* asCount(CLI::Option* option, int least) {
  const auto check = [least](const std::string& word) {
    constexpr std::size_t kMostDigits = 18;
    const bool isNumber =
        !word.empty() && word.size() <= kMostDigits && word.find_first_not_of("0123456789") == word.npos;
    if (isNumber && std::stoll(word) >= least) return std::string();
    return "'" + word + "' is not a whole number from " + std::to_string(least);
  };
  return option->check(check, "", "")->type_name("NUMBER");
}

CLI::Option* inSeconds(CLI::Option* option) {
  return option->check(checkSeconds, "", "")->type_name("SECONDS");
}

}  // namespace orvel::cli
