#include "tools/cli/Integration.h"

#include <iostream>

#include "tools/cli/ManPage.h"

namespace orvel::cli {

std::optional<int> answerIntegration(const CLI::App& app, int argc, const char* const* argv,
                                     const std::string& see_also, Values (*values)()) {
  const std::string request = argc > 1 ? argv[1] : "";
  if (request == "--man-page" && argc == 2) return (std::cout << manPage(app, see_also) << std::flush) ? 0 : 1;
  if (request == "--complete" && argc == 4) return complete(app, argv[2], argv[3], values());
  return std::nullopt;
}

}  // namespace orvel::cli
