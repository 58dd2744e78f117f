#include "tools/cli/Usage.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "tools/cli/Completion.h"
#include "tools/cli/Failure.h"
#include "tools/cli/Help.h"
#include "tools/cli/Streams.h"
#include "tools/cli/Text.h"

namespace orvel::cli {
namespace {

using Names = std::vector<std::string>;

std::string quoted(const std::string& word) {
  return "'" + word + "'";
}

// The names of the subcommands that help shows.
Names subcommandsOf(const CLI::App& app) {
  Names names;
  for (const CLI::App* each : app.get_subcommands([](const CLI::App* any) { return !any->get_group().empty(); })) {
    names.push_back(each->get_name());
  }
  return names;
}

const CLI::App& innermostOf(const CLI::App& app) {
  const CLI::App* innermost = &app;
  while (!innermost->get_subcommands().empty()) innermost = innermost->get_subcommands().front();
  return *innermost;
}

// The subcommand as it is typed, "package install".
std::string subcommandOf(const CLI::App& innermost) {
  if (innermost.get_parent() == nullptr) return {};
  const std::string command = commandOf(innermost);
  return command.substr(command.find(' ') + 1);
}

// What stands in front of what is wrong with its words.
std::string where(const CLI::App& innermost) {
  const std::string subcommand = subcommandOf(innermost);
  return subcommand.empty() ? "" : subcommand + ": ";
}

const CLI::Option* optionCalled(const CLI::App& innermost, const std::string& name) {
  for (const CLI::App* app = &innermost; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      if (option->get_name() == name || option->check_name(name)) return option;
    }
  }
  return nullptr;
}

Names optionsOf(const CLI::App& innermost) {
  Names names;
  for (const CLI::App* app = &innermost; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

// The first of the words that nothing takes, in the order in which they were given.
std::string firstOf(const Names& unread, int argc, const char* const* argv) {
  for (int n = 1; n < argc && std::string_view(argv[n]) != "--"; ++n) {
    if (std::find(unread.begin(), unread.end(), argv[n]) != unread.end()) return argv[n];
  }
  return unread.front();
}

std::string unexpected(const CLI::App& innermost, const std::string& word) {
  if (word.size() > 1 && word.front() == '-') {
    const std::string name = word.substr(0, word.find('='));
    // It is the program's, or the subcommand would have taken it.
    if (optionCalled(innermost, name) != nullptr) return name + " stands before " + subcommandOf(innermost);
    return where(innermost) + "there is no option " + name + didYouMean(name, optionsOf(innermost));
  }
  const Names subcommands = subcommandsOf(innermost);
  if (subcommands.empty()) return where(innermost) + quoted(word) + " is one word too many";
  const std::string near = didYouMean(word, subcommands);
  const std::string all = std::string("; there ") + (subcommands.size() == 1 ? "is " : "are ") + joined(subcommands);
  return where(innermost) + "no subcommand is called " + quoted(word) + (near.empty() ? all : near);
}

// The part of the text behind the last `mark`, or all of it.
std::string behind(const std::string& text, const std::string& mark) {
  const std::size_t at = text.find(mark);
  return at == std::string::npos ? text : text.substr(at + mark.size());
}

// What a value of the option looks like, in words.
std::string kindOf(const CLI::Option* option) {
  const std::string type = option == nullptr ? "" : option->get_type_name();
  const bool isNamed = !type.empty() && type != "INT" && type != "UINT" && type != "FLOAT" && type != "NUMBER";
  return isNamed ? type.substr(0, type.find(':')) : "a number";
}

// "--default: expected a number, not 'x'", of "Could not convert: --default = x".
std::string ofConversion(const CLI::App& innermost, const std::string& what) {
  const std::string both = behind(what, "Could not convert: ");
  const std::size_t equals = both.find(" = ");
  if (both == what || equals == std::string::npos) return where(innermost) + what;
  const std::string name = both.substr(0, equals);
  const std::string word = both.substr(equals + 3);
  const bool isNumber = word.find_first_not_of("0123456789", word.find_first_not_of('-')) == std::string::npos;
  if (isNumber && !word.empty()) return where(innermost) + name + ": " + quoted(word) + " is out of range";
  return where(innermost) + name + ": expected " + kindOf(optionCalled(innermost, name)) + ", not " + quoted(word);
}

// "value: no 'nam'; there are name, type; did you mean name?", of "value: nam not in {name,type}".
std::string ofValidation(const CLI::App& innermost, const std::string& what) {
  const std::size_t colon = what.find(": ");
  const std::size_t list = what.rfind(" not in {");
  if (colon == std::string::npos || list == std::string::npos || list < colon) {
    // A check that is for the whole subcommand names that.
    const bool isNamed = what.substr(0, colon) == innermost.get_name() && innermost.get_parent() != nullptr;
    return where(innermost) + (isNamed ? what.substr(colon + 2) : what);
  }
  const std::string name = what.substr(0, colon);
  const std::string word = what.substr(colon + 2, list - colon - 2);
  const CLI::Option* const option = optionCalled(innermost, name);
  const Names choices = option == nullptr ? Names() : choicesOf(*option);
  return where(innermost) + name + ": expected " + (choices.size() > 1 ? "one of " : "") + joined(choices) + ", not " +
         quoted(word) + didYouMean(word, choices);
}

// "--record: FILE is missing", of "--record: 1 required FILE missing".
std::string ofMismatch(const CLI::App& innermost, const std::string& what) {
  const std::string name = what.substr(0, what.find(": "));
  if (what.find("At Most 1 required") != std::string::npos) return where(innermost) + name + ": is given twice";
  const std::size_t required = what.find(" required ");
  const std::size_t missing = what.rfind(" missing");
  if (required == std::string::npos || missing == std::string::npos || missing < required) {
    return where(innermost) + what;
  }
  return where(innermost) + name + ": " + what.substr(required + 10, missing - required - 10) + " is missing";
}

// What is wrong. Where a subcommand is missing or unknown, it names those that there are.
std::string usageError(const CLI::App& app, const CLI::ParseError& error, int argc, const char* const* argv) {
  const CLI::App& innermost = innermostOf(app);
  const std::string what = error.what();
  Names unread = app.remaining(/*recurse=*/true);
  unread.erase(std::remove(unread.begin(), unread.end(), "--"), unread.end());
  const bool isMissing = what == "A subcommand is required";
  if (isMissing && unread.empty()) {
    const Names known = subcommandsOf(innermost);
    return where(innermost) + "a subcommand is required; there " + (known.size() == 1 ? "is " : "are ") + joined(known);
  }
  const bool isExtra = isMissing || dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
  if (isExtra && !unread.empty()) return unexpected(innermost, firstOf(unread, argc, argv));
  if (dynamic_cast<const CLI::ConversionError*>(&error) != nullptr) return ofConversion(innermost, what);
  if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr) return ofValidation(innermost, what);
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) return ofMismatch(innermost, what);
  const auto between = [&](const std::string& verb, const std::string& words) {
    const std::size_t at = what.find(verb);
    return where(innermost) + what.substr(0, at) + words + what.substr(at + verb.size());
  };
  if (dynamic_cast<const CLI::RequiresError*>(&error) != nullptr) return between(" requires ", ": only together with ");
  if (dynamic_cast<const CLI::ExcludesError*>(&error) != nullptr) return between(" excludes ", ": not together with ");
  if (const std::size_t at = what.rfind(" is required"); at != std::string::npos) {
    std::string name = what.substr(0, at);
    const auto upper = [](unsigned char c) { return static_cast<char>(std::toupper(c)); };
    if (name.front() != '-') std::transform(name.begin(), name.end(), name.begin(), upper);
    return where(innermost) + name + " is missing";
  }
  return where(innermost) + what;
}

}  // namespace

std::optional<int> parse(CLI::App& app, int argc, const char* const* argv, const std::string& place) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::Success& shown) {
    if (dynamic_cast<const CLI::CallForVersion*>(&shown) == nullptr) arrangeHelp(app);
    app.exit(shown);
    flushOutput();
    return kSuccess;
  } catch (const CLI::ParseError& error) {
    const std::string message = place + usageError(app, error, argc, argv);
    complain(app.get_name(), printable(message) + "\n" + commandOf(innermostOf(app)) + " --help says more.");
    return fail(app.get_name(), {kUsage, message}, asksForJson(argc, argv), /*said=*/true);
  }
}

}  // namespace orvel::cli
