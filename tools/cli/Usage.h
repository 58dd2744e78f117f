// Parsing a command line, and saying what is wrong with one.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace orvel::cli {

// Parses the command line, and returns the exit status of a program that ends here: one that was asked for help, or one
// that was used wrongly, which standard error then says, and with --json standard output too. `place` is said first:
// where the command line stands. Empty when the program goes on. Throws std::runtime_error when the help cannot be
// written.
std::optional<int> parse(CLI::App& app, int argc, const char* const* argv, const std::string& place = {});

}  // namespace orvel::cli
