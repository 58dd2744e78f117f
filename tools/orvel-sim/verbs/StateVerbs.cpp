#include "tools/orvel-sim/verbs/StateVerbs.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "device/Scenario.h"
#include "device/ShippedScenarios.h"
#include "device/services/Services.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/Reading.h"

namespace orvel::sim {
namespace {

using Words = std::vector<std::string>;

// Below the help of a verb: the values, described only when the help is shown, because that takes long.
void addValues(CLI::App& verb, const std::string& more = "") {
  verb.footer([] { return "Values:\n" + describeScenario(); });
  verb.footer("The service may be left out where only one has the field." + more);
}

void addGet(CLI::App& app) {
  const auto words = std::make_shared<Words>();
  const auto json = std::make_shared<bool>(false);
  CLI::App* get = app.add_subcommand("get", "Show a value as it is now, or all");
  get->add_option("field", *words, "[SERVICE] FIELD [KEY...], as for set")->type_name("");
  get->add_flag("--json", *json, "a text as JSON too, and everything in one line");
  addValues(*get, "\nWhat is not set is said so, with exit status 1.");
  get->callback([words, json] {
    const Json value = inForce(*words);
    if (*json) return print(cli::jsonText(value));
    // Of a text in a pipe not a character is another than it is.
    const bool isShown = isatty(STDOUT_FILENO) != 0;
    const std::string text = value.is_string() ? value.get<std::string>() : cli::jsonText(value, 2);
    print(isShown && value.is_string() ? cli::printable(text) : text);
  });
}

void addSet(CLI::App& app) {
  // All that follows is taken as it is, a value like -3 too.
  CLI::App* set = app.add_subcommand("set", "Change a value: set [SERVICE] FIELD [KEY...] VALUE")->prefix_command();
  addValues(*set);
  set->callback([set] {
    Words words = set->remaining();
    if (words.size() < 2) {
      const std::string missing =
          words.empty() ? "a FIELD and a VALUE are missing" : "a VALUE is missing behind '" + words[0] + "'";
      throw ScenarioError("set: " + missing + "; orvel-sim set --help lists the fields");
    }
    const std::string value = words.back();
    words.pop_back();
    sendChange(changeOf(words, value));
  });
}

void addUnset(CLI::App& app) {
  const auto words = std::make_shared<Words>();
  CLI::App* unset = app.add_subcommand("unset", "Remove a key, such as a setting");
  unset->add_option("field", *words, "[SERVICE] FIELD KEY...")->required()->type_name("");
  addValues(*unset, "\nA field without keys becomes what it is by default.");
  unset->callback([words] { sendChange(changeOf(*words, {})); });
}

// A verb that switches a flag by one word or another.
void addSwitch(CLI::App& app, const char* name, const char* about, const Words& flag, const std::string& on,
               const std::string& off) {
  const auto word = std::make_shared<std::string>();
  CLI::App* verb = app.add_subcommand(name, about);
  verb->add_option("state", *word, on + " or " + off)->check(CLI::IsMember({on, off}))->type_name("");
  const auto inWords = [on, off](const Json& value) { return value.get<bool>() ? on : off; };
  addReading(*verb, {[flag] { return inForce(flag); }, inWords},
             [flag, word, on] { sendChange(changeOf(flag, *word == on ? "true" : "false")); });
}

void addAccount(CLI::App& app) {
  struct Given {
    std::string change;
    std::optional<std::string> id;
  };
  const Words path = {"delegate", "customerId"};
  const auto given = std::make_shared<Given>();
  CLI::App* verb = app.add_subcommand("account", "Register the device to an account, or to none");
  verb->add_option("change", given->change, "added or removed")
      ->check(CLI::IsMember({"added", "removed"}))
      ->type_name("");
  verb->add_option("id", given->id, "the account's identifier; without it, that of the default scenario");
  const auto inWords = [](const Json& id) {
    const std::string account = accountOf(id);
    return account.empty() ? "removed" : "added " + account;
  };
  addReading(*verb, {[path] { return inForce(path); }, inWords}, [path, given] {
    const bool added = given->change == "added";
    const auto& id = given->id;
    if (id && !added) throw ScenarioError("account removed: no ID is expected, not '" + *id + "'");
    if (id && id->empty()) throw ScenarioError("account added: the ID is empty");
    const Json initial = defaultScenario().at(Json::json_pointer("/delegate/customerId"));
    sendChange(changeOf(path, added ? id.value_or(initial.get<std::string>()) : ""));
  });
}

void addScenarios(CLI::App& app) {
  const auto name = std::make_shared<std::string>();
  const auto json = std::make_shared<bool>(false);
  CLI::App* verb = app.add_subcommand("scenarios", "List the scenarios that come with the program, or print one");
  verb->add_option("name", *name, "print this one, as a file for --scenario")->type_name("");
  verb->add_flag("--json", *json, "one JSON object per line");
  verb->callback([name, json] {
    if (!name->empty()) return print(shippedScenario(*name).dump(*json ? -1 : 2));
    for (const ShippedScenario& each : shippedScenarios()) {
      const std::string column(12 - std::min<std::size_t>(each.name.size(), 11), ' ');
      print(*json ? Json({{"name", each.name}, {"about", each.about}}).dump() : each.name + column + each.about);
    }
  });
}

}  // namespace

void addStateVerbs(CLI::App& app) {
  addGet(app);
  addSet(app);
  addUnset(app);
  addSwitch(app, "screen", "Switch the screen on or off", {"power", "screenOn"}, "on", "off");
  addAccount(app);
  addSwitch(app, "maro", "Connect or disconnect the assistant", {"delegate", "maroConnected"}, "connected",
            "disconnected");
  addSwitch(app, "network", "Connect or disconnect the default network", {"connectivity", "networkConnected"},
            "connected", "disconnected");
  addScenarios(app);
}

}  // namespace orvel::sim
