// Text of services on a terminal.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace orvel::cli {

// The text with every character escaped that a terminal would act on: control characters as \n, \x1b and \u0085, and
// bytes that are no UTF-8 as \xff. With the backslash doubled where it stands before, so that nothing looks escaped
// that is not.
std::string printable(const std::string& text);

// JSON that holds no such character either, and is UTF-8 whatever the texts are. In one line for an `indent` of -1.
std::string jsonText(const nlohmann::ordered_json& json, int indent = -1);

// The same for text of which parts are JSON already, and the rest holds no backslash.
std::string printableJson(const std::string& text);

// The text as one word of bash.
std::string shellWord(const std::string& text);

// The text and as many spaces as make it so many columns wide, at least `gap`.
std::string padded(const std::string& text, std::size_t width, std::size_t gap = 1);

// How many columns a terminal takes for it.
std::size_t widthOf(const std::string& text);

// The text cut to so many columns, with "…" for its end where it is longer.
std::string cutTo(const std::string& text, std::size_t columns);

// How many columns the terminal behind the standard stream has, or COLUMNS says; 0 where there is neither.
std::size_t columnsOf(int stream);

// "a, b, c"
std::string joined(const std::vector<std::string>& words);

// "; did you mean NAME?" for the known name that is most like the word; empty when none is.
std::string didYouMean(const std::string& word, const std::vector<std::string>& known);

}  // namespace orvel::cli
