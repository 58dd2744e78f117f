// What packages and shells ask of a program, in place of what its help describes.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "tools/cli/Completion.h"

namespace orvel::cli {

// The end of a program's help: where the device is looked for.
constexpr char kPlaces[] = R"(

Environment:
  ORVEL_RUNTIME_DIR      the folder in which the device lives
  XDG_RUNTIME_DIR        where that is not set, the device lives in the folder orvel in this one
  ORVEL_CALL_TIMEOUT_MS  how long a call of a service may take (default: 30000)
  NO_COLOR               no colours, with any value that is not empty

Files:
  /tmp/orvel-<uid>  where the device lives when neither folder is set)";

// Answers `PROGRAM --man-page` and `PROGRAM --complete LINE WORDBREAKS`, and gives the exit status; nothing for any
// other command line. The page points to the one of `see_also`; `values` is asked for a completion only.
std::optional<int> answerIntegration(const CLI::App& app, int argc, const char* const* argv,
                                     const std::string& see_also, Values (*values)());

}  // namespace orvel::cli
