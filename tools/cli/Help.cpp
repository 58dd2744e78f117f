#include "tools/cli/Help.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

#include "tools/cli/Text.h"

namespace orvel::cli {
namespace {

constexpr std::size_t kColumns = 80;       // where there is no terminal
constexpr std::size_t kLeastColumns = 40;  // for a description beside its option
constexpr std::size_t kMostColumns = 120;

// Where the words begin that a description gives as its own usage; npos where it does not.
std::size_t usageIn(const CLI::App& app) {
  const std::size_t at = app.get_description().find(": " + app.get_name() + " ");
  return at == std::string::npos ? at : at + 2 + app.get_name().size() + 1;
}

class Formatter : public CLI::Formatter {
 public:
  std::string make_description(const CLI::App* app) const override {
    const std::size_t at = usageIn(*app);
    const std::string& text = app->get_description();
    return (at == std::string::npos ? text : text.substr(0, at - app->get_name().size() - 3)) + "\n";
  }

  std::string make_usage(const CLI::App* app, std::string name) const override {
    const std::size_t at = usageIn(*app);
    if (at == std::string::npos) return CLI::Formatter::make_usage(app, std::move(name));
    return "Usage: " + name + " [OPTIONS] " + app->get_description().substr(at) + "\n";
  }

  // One that takes words of several kinds says which in its description: "SERVICE [METHOD] [on|off]; and more".
  std::string make_option_usage(const CLI::Option* option) const override {
    std::string usage = option->get_name(true, false);
    if (option->get_items_expected_max() > 1) usage += "...";
    const std::string& about = option->get_description();
    if (about.rfind("SERVICE ", 0) == 0 || about.rfind("[SERVICE] ", 0) == 0)
      usage = about.substr(0, about.find_first_of(",;"));
    return option->get_required() ? usage : "[" + usage + "]";
  }

  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
    const std::size_t terminal = columnsOf(STDOUT_FILENO);
    const std::size_t columns = terminal == 0 ? kColumns : std::clamp(terminal, kLeastColumns, kMostColumns);
    return wrapped(CLI::Formatter::make_help(app, std::move(name), mode), columns);
  }
};

void arrange(CLI::App& app, const std::shared_ptr<Formatter>& formatter) {
  app.formatter(formatter);
  for (CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; })) {
    // One that has no footer of its own has that of the subcommand that it belongs to. Program footers come last.
    if (app.get_parent() != nullptr && each->get_footer() == app.get_footer()) {
      each->footer(std::string());
      each->footer(std::function<std::string()>());
    }
    arrange(*each, formatter);
  }
}

// Where the last column of a line begins.
std::size_t lastColumn(const std::string& line) {
  const std::size_t text = line.find_first_not_of(' ');
  const std::size_t gap = line.rfind("  ");
  return gap == std::string::npos || text == std::string::npos || gap < text ? std::min(text, line.size()) : gap + 2;
}

void wrapLine(const std::string& line, std::size_t columns, std::string& text) {
  std::size_t indent = lastColumn(line);
  if (indent + kLeastColumns / 2 > columns) indent = 4;
  std::string rest = line;
  for (bool first = true; rest.size() > columns; first = false) {
    const std::size_t least = first ? lastColumn(line) : indent;
    std::size_t end = rest.rfind(' ', columns);
    if (end == std::string::npos || end <= least) end = rest.find(' ', std::max(least, columns));
    if (end == std::string::npos) break;  // one word
    text += rest.substr(0, end) + "\n";
    rest = std::string(indent, ' ') + rest.substr(rest.find_first_not_of(' ', end));
  }
  text += rest + "\n";
}

}  // namespace

void addVersion(CLI::App& app) {
  app.set_version_flag("--version", app.get_name() + " " + ORVEL_PROGRAM_VERSION, "Print the version and exit");
}

void arrangeHelp(CLI::App& app) {
  arrange(app, std::make_shared<Formatter>());
}

std::string commandOf(const CLI::App& app) {
  return (app.get_parent() == nullptr ? "" : commandOf(*app.get_parent()) + " ") + app.get_name();
}

std::string wrapped(const std::string& text, std::size_t columns) {
  std::istringstream lines(text);
  std::string result;
  std::vector<std::string> paragraph;
  // Prose that has to be wrapped is wrapped as a whole.
  const auto endParagraph = [&] {
    const auto isLong = [&](const std::string& line) { return line.size() > columns; };
    if (std::any_of(paragraph.begin(), paragraph.end(), isLong)) {
      std::string joined;
      for (const std::string& line : paragraph) joined += (joined.empty() ? "" : " ") + line;
      paragraph = {joined};
    }
    for (const std::string& line : paragraph) wrapLine(line, columns, result);
    paragraph.clear();
  };
  for (std::string line; std::getline(lines, line);) {
    const bool isProse = !line.empty() && line.front() != ' ' && line.rfind("Usage:", 0) != 0;
    if (!isProse) endParagraph();
    paragraph.push_back(line);
    if (!isProse) endParagraph();
  }
  endParagraph();
  return result;
}

}  // namespace orvel::cli
