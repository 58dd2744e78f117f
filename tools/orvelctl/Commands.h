// The subcommands, each a description of its arguments and what it does with a session.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "Session.h"
#include "orvel/AssistantEvent.h"
#include "orvel/ComponentName.h"
#include "orvel/TarselMetricEvent.h"

namespace orvelctl {

using Command = std::function<void(Session&)>;

// Where subcommands are added: beneath an app or another subcommand. The one that is given becomes `chosen`.
class Commands {
 public:
  Commands(CLI::App& parent, Command& chosen) : m_parent(parent), m_chosen(chosen) {}  // both outlive the parsing

  CLI::App* add(const std::string& name, const std::string& about, Command run) {
    CLI::App* subcommand = m_parent.add_subcommand(name, about);
    subcommand->callback([&chosen = m_chosen, run = std::move(run)] { chosen = run; });
    return subcommand;
  }

  // A name that subcommands stand behind.
  Commands group(const std::string& name, const std::string& about) {
    return {*m_parent.add_subcommand(name, about)->require_subcommand(1), m_chosen};
  }

 private:
  CLI::App& m_parent;
  Command& m_chosen;
};

// A text argument that must be given and not be empty.
CLI::Option* addText(CLI::App* subcommand, const std::string& name, std::string& value, const std::string& about);

// The number that a word stands for, decimal or with 0x; nothing when it is none or does not fit.
template <typename Number>
std::optional<Number> readNumber(const std::string& word) {
  const int base = word.find('x') == std::string::npos ? 10 : 16;  // a leading 0 alone says nothing
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(word.c_str(), &end, base);
  const bool whole = !word.empty() && *end == '\0' && errno == 0;
  if (!whole || value < std::numeric_limits<Number>::min() || value > std::numeric_limits<Number>::max()) return {};
  return static_cast<Number>(value);
}

std::optional<double> readReal(const std::string& word);
std::optional<std::string> readText(const std::string& word);
std::optional<bool> readTruth(const std::string& word);

// PACKAGE/CLASS, where "/.Name" is short for the class Name of the package itself; nothing for another form.
std::optional<orvel::service_apis::ComponentName> readComponent(const std::string& word);

// The content of a file, of standard input for "-"; throws CLI::ValidationError, which names the argument.
std::string readFile(const std::string& argument, const std::string& name);

using orvel::service_apis::TarselPredefined;

// The number of a fact, given by that or by its key, whose underscore may be left out. Throws CLI::ValidationError,
// which names the argument.
TarselPredefined::Type readPredefined(const std::string& argument, const std::string& word);

// Sends the event, and prints what became of it.
void sendEvent(Session& session, const orvel::service_apis::AssistantEvent& event);

// Keys and values as they were given.
using KeyedWords = std::vector<std::pair<std::string, std::string>>;

// Puts what one option gave, each value read by `read`, which gives nothing for a word that is no `kind`; `put` gives
// false for a key that is there already. Throws CLI::ValidationError.
template <typename Read, typename Put>
void putAll(const std::string& option, const KeyedWords& words, const std::string& kind, Read read, Put put) {
  for (const auto& [key, word] : words) {
    const auto value = read(word);
    if (!value) throw CLI::ValidationError(option + " " + key, "expected " + kind + ", not '" + word + "'");
    if (!put(key, *value)) throw CLI::ValidationError(option + " " + key, "given twice");
  }
}

using Names = std::vector<std::string>;
using NamesQuery = std::function<Names(Client&)>;

// A query that fills a list and tells whether it could.
NamesQuery namesBy(bool (Client::*query)(Names&));

// What --default says of an integer, 0 without it. Throws CLI::ValidationError.
int readFallback(const std::optional<std::string>& word);

// Whether the package is installed; nothing when the service does not say.
std::optional<bool> isInstalled(Client& client, const std::string& package);

// The failure of what was asked of a package that is not.
Failure notInstalled(const std::string& what, const std::string& package);

// Asks for names, and prints them: one a line, none for none, or as the object with a list "packages".
void showPackages(Session& session, const std::string& what, Service service, Json object, const NamesQuery& query);

// am: intents and processes, in the words of a device's own am.
void addActivityCommands(Commands& commands);

// pm: packages, in the words of a device's own pm.
void addPackageCommands(Commands& commands);

// event, directive, metric: the voice assistant and the device's metrics.
void addAssistantCommands(Commands& commands);

// list, describe, call: every method of the client by its name.
void addMethodCommands(Commands& commands);

}  // namespace orvelctl
