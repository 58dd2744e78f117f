#include "tools/cli/ManPage.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "tools/cli/Completion.h"

namespace orvel::cli {
namespace {

// Text as roff takes it. Hyphens stay what they are when they are copied; a leading '.' or '\'' would be a request.
std::string escaped(const std::string& text) {
  static const std::map<char, const char*> replacements = {
      {'\\', "\\e"}, {'-', "\\-"}, {'"', "\\(dq"}, {'\'', "\\(aq"}, {'`', "\\(ga"}, {'^', "\\(ha"}, {'~', "\\(ti"}};
  std::string roff = !text.empty() && text.front() == '.' ? "\\&" : "";
  for (const char c : text) {
    const auto found = replacements.find(c);
    roff += found == replacements.end() ? std::string(1, c) : found->second;
  }
  return roff;
}

std::string bold(const std::string& text) {
  return "\\fB" + escaped(text) + "\\fR";
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

bool isIndented(const std::string& line) {
  return line.rfind("  ", 0) == 0;
}

class Page {
 public:
  Page(const CLI::App& app, const std::string& see_also) {
    const std::string& name = app.get_name();
    m_roff << ".\\\" Made from the program's own description of its arguments.\n"
           << ".TH " << upper(name) << " 1 \"" << ORVEL_RELEASED << "\" \"OrvelDelegateClient " << ORVEL_PROGRAM_VERSION
           << "\" \"User Commands\"\n";
    const std::string about = app.get_description();
    section("NAME");
    m_roff << escaped(name) << " \\- " << escaped(inOneLine(about)) << "\n";
    section("SYNOPSIS");
    m_roff << escaped(usage(app)) << "\n";
    section("DESCRIPTION");
    m_roff << escaped(about) << "\n";
    section("OPTIONS");
    options(app);
    Footer footer(app.get_footer());
    blocks(footer.untilHeading());
    section("COMMANDS");
    for (const CLI::App* each : visible(app)) subcommand(*each, name + " " + each->get_name());
    while (!footer.atEnd()) {
      section(upper(footer.heading()));
      blocks(footer.untilHeading());
    }
    section("SEE ALSO");
    m_roff << bold(see_also) << "(1)\n";
  }

  std::string text() const { return m_roff.str(); }

 private:
  using Lines = std::vector<std::string>;

  // A help text's lines, in parts that begin with a heading.
  class Footer {
   public:
    explicit Footer(const std::string& text) {
      std::istringstream lines(text);
      for (std::string line; std::getline(lines, line);) m_lines.push_back(line);
    }
    bool atEnd() const { return m_next == m_lines.size(); }
    std::string heading() {
      const std::string& line = m_lines[m_next++];
      return line.substr(0, line.size() - 1);
    }
    Lines untilHeading() {
      const std::size_t begin = m_next;
      while (!atEnd() && !isHeading(m_next)) ++m_next;
      return {m_lines.begin() + static_cast<std::ptrdiff_t>(begin),
              m_lines.begin() + static_cast<std::ptrdiff_t>(m_next)};
    }

   private:
    bool isHeading(std::size_t at) const {
      const std::string& line = m_lines[at];
      return !line.empty() && !isIndented(line) && line.back() == ':' && at + 1 < m_lines.size() &&
             isIndented(m_lines[at + 1]);
    }

    Lines m_lines;
    std::size_t m_next = 0;
  };

  static std::vector<const CLI::App*> visible(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); });
  }

  static std::string usage(const CLI::App& app) {
    std::string line = CLI::Formatter().make_usage(&app, path(app));  // "Usage: ...\n"
    line.erase(0, line.find(':') + 2);
    return line.substr(0, line.size() - 1);
  }

  // As a list of programs shows it.
  static std::string inOneLine(std::string about) {
    about.erase(about.find_last_not_of('.') + 1);
    if (!about.empty()) about.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(about.front())));
    return about;
  }

  static std::string path(const CLI::App& app) {
    return (app.get_parent() == nullptr ? "" : path(*app.get_parent()) + " ") + app.get_name();
  }

  void section(const std::string& title) { m_roff << ".SH " << escaped(title) << "\n"; }

  void subcommand(const CLI::App& app, const std::string& title) {
    m_roff << ".SS " << escaped(title) << "\n" << escaped(usage(app)) << "\n";
    for (const std::string& alias : app.get_aliases())
      m_roff << ".br\n"
             << "Also " << bold(alias) << ".\n";
    if (!app.get_description().empty()) m_roff << ".PP\n" << escaped(app.get_description()) << ".\n";
    options(app);
    // One that has none of its own has that of the whole program.
    Footer footer(app.get_footer() == app.get_parent()->get_footer() ? "" : app.get_footer());
    blocks(footer.untilHeading());
    while (!footer.atEnd()) {
      const std::string heading = footer.heading();
      const Lines lines = footer.untilHeading();
      // Several subcommands list the same things.
      const auto [first, is_new] = m_lists.try_emplace(lines, title);
      m_roff << ".PP\n" << escaped(heading);
      if (is_new) {
        m_roff << ":\n";
        blocks(lines);
      } else {
        m_roff << ": as for " << bold(first->second) << ".\n";
      }
    }
    for (const CLI::App* each : visible(app)) subcommand(*each, title + " " + each->get_name());
  }

  // Paragraphs, and what is indented line by line.
  void blocks(const Lines& lines) {
    bool indented = false;
    bool begins = true;
    const auto end = [&] {
      if (indented) m_roff << ".fi\n.RE\n";
      indented = false;
      begins = true;
    };
    for (const std::string& line : lines) {
      if (line.empty() || indented != isIndented(line)) end();
      if (line.empty()) continue;
      if (begins) m_roff << (isIndented(line) ? ".RS 2\n.nf\n" : ".PP\n");
      begins = false;
      indented = isIndented(line);
      m_roff << escaped(indented ? line.substr(2) : line) << "\n";
    }
    end();
  }

  void options(const CLI::App& app) {
    for (const bool positional : {true, false}) {
      for (const CLI::Option* option : app.get_options()) {
        const bool is_help =
            app.get_parent() != nullptr && (option == app.get_help_ptr() || option == app.get_help_all_ptr());
        const bool is_listed = positional ? option->get_positional() : option->nonpositional() && !is_help;
        if (is_listed && !option->get_group().empty()) describe(*option, positional);
      }
    }
  }

  void describe(const CLI::Option& option, bool positional) {
    const std::vector<std::string> choices = choicesOf(option);
    std::string text = option.get_description();
    for (const std::string& choice : choices) {
      text += (&choice != &choices.front() ? ", " : (text.empty() ? "" : "; ") + std::string("one of ")) + choice;
    }
    if (option.get_items_expected_max() != 0 && !option.get_default_str().empty()) {
      text += " (default: " + option.get_default_str() + ")";
    }
    std::set<std::string> others;  // by name: CLI11 orders them by address, which differs from run to run
    for (const CLI::Option* other : option.get_excludes()) others.insert(other->get_name());
    for (const std::string& other : others) text += "; not with " + other;
    if (text.empty()) return;  // the synopsis says all there is
    m_roff << ".TP\n";
    std::istringstream names(option.get_name(positional, !positional));
    const char* separator = "";
    for (std::string name; std::getline(names, name, ','); separator = ", ") m_roff << separator << bold(name);
    const std::string type = option.get_type_name();
    if (option.get_items_expected_max() != 0 && choices.empty() && !type.empty()) {
      m_roff << " \\fI" << escaped(type.substr(0, type.find(':'))) << "\\fR";
    }
    m_roff << "\n" << escaped(text) << "\n";
  }

  std::ostringstream m_roff;
  std::map<Lines, std::string> m_lists;  // with the subcommand that has them first
};

}  // namespace

std::string manPage(const CLI::App& app, const std::string& see_also) {
  return Page(app, see_also).text();
}

}  // namespace orvel::cli
