// Completing the command lines of a program in a shell, from the description that parses its arguments.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/cli/TypedWord.h"

namespace orvel::cli {

// The values that a description does not list, for each option that has such. An option is named as in the description,
// "package" or "--package"; where that says too little, behind its subcommand, "setting key". A subcommand that takes
// all words as they are is named alone. A value is a word or, with '@', the values of a kind that `orvel-sim
// --complete-values` knows: "@packages", or each behind a word, "setting:@settings".
using Values = std::map<std::string, std::vector<std::string>>;

// The kind of what the shell itself completes: the names of files. An option of type FILE has it anyway.
constexpr char kFileNames[] = "files";

// What may stand in place of the typed word.
struct Candidates {
  std::vector<std::string> words;   // that are known
  std::string kind;                 // of further ones; empty: none
  std::string head;                 // what stands before each of those: "--package=", or "setting:"
  std::vector<std::string> before;  // the values that the option, or the subcommand, has already
};

Candidates candidates(const CLI::App& app, const TypedWord& word, const Values& values);

// The values of an option of which only some are allowed, in their order; empty for all other options.
std::vector<std::string> choicesOf(const CLI::Option& option);

// Writes those of the words that complete the typed one to standard output, one a line, in one piece.
void writeCompletions(const TypedWord& word, const std::vector<std::string>& words);

// Limits a completion to 150 ms from the first call: a signal then ends this process, or the program that it has
// become. What it has written by then stands. Tests on slow machines extend the limit by ORVEL_COMPLETION_MS.
void limitCompletion();

// Answers `PROGRAM --complete LINE WORDBREAKS`, which the shell's function calls: the line ends at the cursor,
// COMP_WORDBREAKS is as in bash. Gives the exit status: 1 says that names of files are welcome too. Values that the
// description does not list are asked of orvel-sim, which this process becomes; it is looked for beside this program,
// then in PATH.
int complete(const CLI::App& app, const std::string& line, const std::string& breaks, const Values& values);

}  // namespace orvel::cli
