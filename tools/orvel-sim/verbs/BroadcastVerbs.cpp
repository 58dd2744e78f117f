#include "tools/orvel-sim/verbs/BroadcastVerbs.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "device/Intent.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"

namespace orvel::sim {
namespace {

Json readComponent(const std::string& word) {
  const std::size_t slash = word.find('/');
  if (slash == 0 || slash == std::string::npos || slash + 1 == word.size()) {
    throw ScenarioError("--component: expected PACKAGE/CLASS, not '" + word + "'");
  }
  return {{"package", word.substr(0, slash)}, {"class", word.substr(slash + 1)}};
}

struct Broadcast {
  std::string action;
  std::map<std::string, std::string> parts;
  std::map<const CLI::Option*, const ExtraType*> extras;
};

Json readBroadcast(const CLI::App& verb, const Broadcast& given) {
  if (given.action.empty()) throw ScenarioError("broadcast: the action is empty");
  Json intent = {{"action", given.action}};
  for (const auto& [key, text] : given.parts) {
    if (!text.empty()) intent[key] = key == "component" ? readComponent(text) : Json(text);
  }
  std::map<const CLI::Option*, std::size_t> taken;
  for (const CLI::Option* option : verb.parse_order()) {
    const auto type = given.extras.find(option);
    if (type == given.extras.end()) continue;
    intent["extras"].push_back(readExtra(*type->second, option->results().at(taken[option]++)));
  }
  return intent;
}

void addBroadcast(CLI::App& app) {
  const auto given = std::make_shared<Broadcast>();
  CLI::App* verb = app.add_subcommand("broadcast", "Send a broadcast to the clients that registered for it");
  verb->add_option("action", given->action)->required()->type_name("");
  const auto addPart = [&](const std::string& key, const char* value, const char* about) {
    verb->add_option("--" + key, given->parts[key], about)->type_name(value);
  };
  addPart("data", "URI", "the data, such as package:NAME");
  addPart("type", "MIME", "the MIME type of the data");
  addPart("package", "NAME", "the package that is meant");
  addPart("component", "PACKAGE/CLASS", "the component that is meant");
  for (const ExtraType& type : extraTypes()) {
    CLI::Option* option = verb->add_option("--" + type.name)->take_all()->type_name(type.help);
    given->extras[option->description("an extra; any number of them, sent in this order")] = &type;
  }
  verb->callback([verb, given] { sendBroadcast(readBroadcast(*verb, *given)); });
}

void addTimeSync(CLI::App& app) {
  struct Times {
    std::optional<std::int64_t> before;
    std::optional<std::int64_t> after;
  };
  const auto times = std::make_shared<Times>();
  CLI::App* verb = app.add_subcommand("time-sync", "Broadcast that the clock was set");
  verb->callback([times] {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto set = times->after.value_or(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    const std::string service = "com.quarlo.velmos.service.timeservice.clock.";
    const auto extra = [&](const char* key, std::int64_t time) {
      return Json{{"key", service + key}, {"type", "long"}, {"value", time}};
    };
    sendBroadcast({{"action", service + "TIME_SYNC"},
                   {"extras", {extra("OLD_TIME_MILLIS", times->before.value_or(set)), extra("NEW_TIME_MILLIS", set)}}});
  });
  verb->add_option("old", times->before, "milliseconds since 1970 before; without it, as after")->type_name("");
  verb->add_option("new", times->after, "and after; without it, now")->type_name("");
}

}  // namespace

void addBroadcastVerbs(CLI::App& app) {
  addBroadcast(app);
  addTimeSync(app);
}

}  // namespace orvel::sim
