// What options of the command lines have in common.
#pragma once

#include <CLI/CLI.hpp>

namespace orvel::cli {

// Takes a number of seconds, from a millisecond to eleven days; no nan. Returns the option.
CLI::Option* inSeconds(CLI::Option* option);

}  // namespace orvel::cli
