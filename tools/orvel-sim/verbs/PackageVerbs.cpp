#include "tools/orvel-sim/verbs/PackageVerbs.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "device/Acts.h"
#include "device/Scenario.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/Reading.h"

namespace orvel::sim {
namespace {

// What a verb is given: the name of what it is for, and values of some of its fields.
struct PackageWords {
  std::string name;
  Json values = Json::object();
};

// A verb below a verb.
CLI::App* addPart(CLI::App& verb, const char* word, const char* about, std::function<void(const PackageWords&)> run,
                  const std::shared_ptr<PackageWords>& words = std::make_shared<PackageWords>()) {
  CLI::App* part = verb.add_subcommand(word, about);
  part->add_option("name", words->name)->required()->type_name("");
  part->callback([words, run = std::move(run)] {
    if (words->name.empty()) throw ScenarioError("the name is empty");
    run(*words);
  });
  return part;
}

// One that performs the act of its name.
CLI::App* addAct(CLI::App& verb, const char* act, const char* about,
                 const std::shared_ptr<PackageWords>& words = std::make_shared<PackageWords>()) {
  const auto run = [act](const PackageWords& given) { sendChange(makeAct(act, given.name, given.values)); };
  return addPart(verb, act, about, run, words);
}

// An option that sets a field.
template <typename Value>
void addField(CLI::App& part, const std::shared_ptr<PackageWords>& words, const char* option, const char* field,
              const char* about) {
  part.add_option_function<Value>(
      option, [words, field](const Value& value) { words->values[field] = value; }, about);
}

std::string packageInWords(const Json& package) {
  return cli::padded(cli::printable(package.at("package")), 42) +
         cli::padded("version " + package.at("versionCode").dump(), 18) +
         cli::padded(cli::printable(package.at("versionName")), 14) + "uid " + package.at("uid").dump();
}

std::string processInWords(const Json& process) {
  return cli::padded(cli::printable(process.at("process")), 42) + cli::padded("pid " + process.at("pid").dump(), 12) +
         cli::padded("uid " + process.at("uid").dump(), 12) + "importance " + process.at("importance").dump() +
         (process.at("focused") == true ? ", focused" : "");
}

void addList(CLI::App& verb, const char* about, const Reading& reading) {
  verb.add_subcommand("list", about)->callback([reading] { show(reading, isJson()); });
}

}  // namespace

void addPackageVerb(CLI::App& app) {
  CLI::App* package =
      app.add_subcommand("package", "Show the packages; install, replace or remove one, or broadcast that one was");
  package->require_subcommand(0, 1);
  const Reading installedReading = {[] { return entriesInForce({"packages", "packages"}, "package"); }, packageInWords};
  addReading(*package, installedReading);
  package->footer(
      "install, replace and remove change what is installed, and clients are told all that a package manager tells.\n"
      "added, removed, replaced and changed only broadcast that one word, and change nothing. For all else of a "
      "package,\n"
      "such as its meta-data, use set and unset: orvel-sim set package NAME metaData KEY VALUE");

  addList(*package, "List what is installed, as without a word", installedReading);

  const auto installed = std::make_shared<PackageWords>();
  CLI::App* install = addAct(*package, "install", "Install a package", installed);
  const auto replaced = std::make_shared<PackageWords>();
  CLI::App* replace = addAct(*package, "replace", "Update an installed package", replaced);
  addAct(*package, "remove", "Remove an installed package, and stop its processes");
  addField<std::int64_t>(*install, installed, "--version-code", "versionCode", "the version's number (default: 1)");
  addField<std::string>(*install, installed, "--version-name", "versionName", "the version's name (default: 1.0)");
  addField<std::int64_t>(*install, installed, "--uid", "uid", "its user id (default: the next free one from 10000)");
  addField<std::int64_t>(*replace, replaced, "--version-code", "versionCode", "its new number (default: one more)");
  addField<std::string>(*replace, replaced, "--version-name", "versionName", "its new name (default: as it was)");

  const std::pair<const char*, const char*> events[] = {
      {"added", "PACKAGE_ADDED"},
      {"removed", "PACKAGE_REMOVED"},
      {"replaced", "PACKAGE_REPLACED"},
      {"changed", "PACKAGE_CHANGED"},
  };
  for (const auto& [word, action] : events) {
    const auto run = [name = std::string("android.intent.action.") + action](const PackageWords& words) {
      sendBroadcast({{"action", name}, {"data", "package:" + words.name}});
    };
    addPart(*package, word, (std::string("Only broadcast ") + action).c_str(), run);
  }
}

void addProcessVerb(CLI::App& app) {
  CLI::App* process =
      app.add_subcommand("process", "Show the processes; start or stop one, or bring it to the foreground");
  process->require_subcommand(0, 1);
  const Reading running = {[] { return entriesInForce({"activity", "processes"}, "process"); }, processInWords};
  addReading(*process, running);
  addList(*process, "List what runs, as without a word", running);
  process->footer(
      "The platform grades processes: 100 foreground, 125 foreground service, 200 perceptible, 300 service, 400 "
      "cached.\n"
      "Clients that start activities and services start processes too, of packages that are installed.");
  const auto started = std::make_shared<PackageWords>();
  CLI::App* start = addAct(*process, "start", "Start a process", started);
  start
      ->add_option_function<std::vector<std::string>>(
          "--package", [started](const std::vector<std::string>& names) { started->values["packages"] = names; },
          "a package that runs in it; any number of them (default: the one that it is named after)")
      ->allow_extra_args(false);
  addField<std::int64_t>(*start, started, "--importance", "importance", "how it is graded (default: 400, cached)");
  addField<std::int64_t>(*start, started, "--uid", "uid", "its user id (default: its package's)");
  addAct(*process, "stop", "Stop a process");
  addAct(*process, "foreground", "Give a process the focus and importance 100; the focused one is cached (400)");
}

}  // namespace orvel::sim
