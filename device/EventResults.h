// What the results of events are called.
#pragma once

#include <array>
#include <string>

namespace orvel::sim {

// By their codes.
constexpr std::array<const char*, 7> kEventResults = {
    "SUCCESS", "SUCCESS_NO_CONTENT", "MARO_DISCONNECTED", "INTERNAL_ERROR",
    "TIMEOUT", "INVALID_EVENT",      "UNKNOWN_ERROR"};

// The code that a word names or is. Throws ScenarioError.
int eventResultCalled(const std::string& word);

}  // namespace orvel::sim
