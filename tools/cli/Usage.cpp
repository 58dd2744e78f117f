#include "tools/cli/Usage.h"

#include <string>
#include <string_view>
#include <vector>

#include "tools/cli/Failure.h"
#include "tools/cli/Streams.h"

namespace orvel::cli {
namespace {

// The names of the subcommands that help shows, in a line.
std::string subcommandsOf(const CLI::App& app) {
  std::string names;
  for (const CLI::App* each : app.get_subcommands([](const CLI::App* any) { return !any->get_group().empty(); })) {
    names += (names.empty() ? "" : ", ") + each->get_name();
  }
  return names;
}

// What is wrong. Where a subcommand is missing or unknown, it names those that there are.
std::string usageError(const CLI::App& app, const CLI::Error& error) {
  const CLI::App* innermost = &app;
  while (!innermost->get_subcommands().empty()) innermost = innermost->get_subcommands().front();
  const std::string subcommands = subcommandsOf(*innermost);
  const std::vector<std::string> unread = app.remaining(/*recurse=*/true);
  const bool missing = std::string_view(error.what()) == "A subcommand is required";
  if (subcommands.empty() || (unread.empty() && !missing)) return error.what();
  const std::string where = innermost == &app ? "" : innermost->get_name() + ": ";
  const std::string what = unread.empty() ? "a subcommand is required" : "no subcommand is called " + unread.front();
  return where + what + "; there are " + subcommands;
}

std::string explain(const CLI::App* app, const CLI::Error& error) {
  return failurePrefix(app->get_name()) + usageError(*app, error) + "\nRun with --help for more information.\n";
}

}  // namespace

std::optional<int> parse(CLI::App& app, int argc, const char* const* argv) {
  app.failure_message(explain);
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) != 0) {
      return fail(app.get_name(), {kUsage, usageError(app, error)}, asksForJson(argc, argv), /*said=*/true);
    }
    flushOutput();
    return kSuccess;
  }
}

}  // namespace orvel::cli
