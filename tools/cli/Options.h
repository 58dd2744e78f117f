// What options of the command lines have in common.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::cli {

// Takes a number of seconds, from a millisecond to eleven days; no nan. Returns the option.
CLI::Option* inSeconds(CLI::Option* option);

// Takes a whole number of at most 18 digits; none with a sign, which would become a large one. Returns the option.
CLI::Option* asCount(CLI::Option* option, int least = 0);

}  // namespace orvel::cli
