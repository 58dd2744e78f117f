// How the help of a program of this project looks.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace orvel::cli {

// "--version", which prints the program's name and version.
void addVersion(CLI::App& app);

// Before help is shown: it is in lines for the terminal, that of a subcommand is about that alone, and its usage says
// the words that a description ends with: "Change a value: set FIELD VALUE".
void arrangeHelp(CLI::App& app);

// "orvel-sim package install", as it is typed.
std::string commandOf(const CLI::App& app);

// The text in lines of so many columns. What continues a line stands below the last of its columns, which two spaces
// separate.
std::string wrapped(const std::string& text, std::size_t columns);

}  // namespace orvel::cli
