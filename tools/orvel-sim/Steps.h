// Verbs of orvel-sim in a file, one a line.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace orvel::sim {

// The words of a line, which quotes and backslashes hold together as in a shell; nothing is expanded. What follows a #
// at the beginning of a word is a comment. Throws ScenarioError for a quote without an end.
std::vector<std::string> wordsOf(const std::string& line);

// Calls `run` with the words of each line of the file that has any, and with "FILE:LINE: ", until it returns something
// else than 0; returns that. The file "-" is standard input. Throws ScenarioError for a line without an end and for a
// file that cannot be read, with its name in front.
int runSteps(const std::string& file,
             const std::function<int(const std::vector<std::string>& words, const std::string& place)>& run);

}  // namespace orvel::sim
