// Colours, for people only.
#pragma once

#include <string>

namespace orvel::cli {

enum class Colour { kRed, kYellow, kGreen, kDim };  // red is for failures, and bold

// The text in a colour where standard stream `stream` is a terminal that shows colours and NO_COLOR is empty or unset;
// else the text as it is.
std::string coloured(int stream, Colour colour, const std::string& text);

}  // namespace orvel::cli
