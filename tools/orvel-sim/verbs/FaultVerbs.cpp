#include "tools/orvel-sim/verbs/FaultVerbs.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/Acts.h"
#include "device/Scenario.h"
#include "device/Service.h"
#include "tools/cli/Options.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/FaultWords.h"
#include "tools/orvel-sim/verbs/LifeVerbs.h"

namespace orvel::sim {
namespace {

// What one verb is given.
struct Given {
  std::vector<std::string> words;
  LimitWords limit;
  Json exception = Json::object();  // parts of it
};

// Those of the kind at the target; at a service as a whole, of all its methods.
Json faultsAt(const FaultKind& kind, const FaultTarget& target) {
  Json list = Json::array();
  const Json status = ask("status");
  for (const Json& fault : status.at("faults")) {
    if (fault.at("fault") != kind.verb) continue;
    if (target.service != nullptr && fault.at("service") != target.service->id) continue;
    if (target.method.empty() || fault.at("method") == target.method) list.push_back(fault);
  }
  return list;
}

std::string nameOf(const FaultTarget& target) {
  return target.service->id + (target.method.empty() ? "" : " " + target.method);
}

void showFaults(const FaultKind& kind, const FaultTarget& target) {
  const Json faults = faultsAt(kind, target);
  if (isJson()) return print(cli::jsonText({{"faults", faults}}));
  if (faults.empty())
    print("no " + kind.verb + " is in force" + (target.service == nullptr ? "" : " for " + nameOf(target)));
  for (const Json& fault : faults) print(faultInWords(fault));
}

void endFault(const FaultKind& kind, const FaultTarget& target) {
  const Json ended = faultsAt(kind, target);
  Json values = {{"key", kind.key}};
  if (!target.method.empty()) values["method"] = target.method;
  device().send({{"order", "change"}, {"change", makeAct("fault", target.service->id, values)}});
  if (isJson()) return printDone({{"ended", ended}});
  if (ended.empty()) print("nothing was in force: " + kind.verb + " " + nameOf(target));
  if (target.method.empty() || target.method == kEveryMethod) return;
  FaultTarget every = target;
  every.method = kEveryMethod;
  for (const Json& left : faultsAt(kind, every)) print("still in force: " + kind.verb + " " + faultInWords(left));
}

// A method has at most one fault of a kind; what another one takes the place of is told.
void setFault(const FaultKind& kind, FaultTarget target, const Given& given) {
  if (target.method.empty()) target.method = kEveryMethod;
  Json value = faultValueOf(kind, target.value);
  if (kind.key == "exception") value.update(given.exception);
  Json values = {{"key", kind.key}, {"method", target.method}, {"value", value}};
  if (const Json limit = limitOf(given.limit, target); !limit.is_null()) values[kOnly] = limit;
  const Json change = makeAct("fault", target.service->id, values);
  const Json replaced = faultsAt(kind, target);
  device().send({{"order", "change"}, {"change", change}});
  if (isJson()) return printDone({{"change", change}, {"replaced", replaced}});
  for (const Json& one : replaced) print("in place of: " + endedInWords(one));
}

void runFault(const FaultKind& kind, const Given& given) {
  const FaultTarget target = faultTargetOf(kind, given.words);
  const bool isShown = target.service == nullptr || (target.value.empty() && !kind.on);
  if ((isShown || target.value == "off") && !(given.limit.empty() && given.exception.empty())) {
    const std::string what = isShown ? "to show what is in force" : "to end it";
    throw ScenarioError(kind.verb + ": options say how to fail; " + what + ", give none");
  }
  if (isShown) return showFaults(kind, target);
  if (target.value == "off") return endFault(kind, target);
  setFault(kind, target, given);
}

void addLimits(CLI::App& verb, LimitWords& limit) {
  verb.add_option("--argument", limit.arguments, "only calls with that argument; may be repeated")
      ->allow_extra_args(false)
      ->type_name("NAME=VALUE");
  verb.add_option("--client", limit.client, "only calls of that process, or of every one that runs that program")
      ->type_name("PID|NAME");
  cli::asCount(verb.add_option("--call", limit.call, "of these calls only that one, counted from 1"), 1);
}

void addExceptionParts(CLI::App& verb, const std::shared_ptr<Given>& given) {
  verb.add_option_function<std::int32_t>(
          "--code", [given](std::int32_t code) { given->exception["code"] = code; }, "exception code (default: -5)")
      ->type_name("NUMBER");
  const auto addPart = [&](const char* option, const char* key, const char* about) {
    verb.add_option_function<std::string>(
        option, [given, key](const std::string& text) { given->exception[key] = text; }, about);
  };
  addPart("--message", "message", "what the exception says");
  addPart("--trace", "trace", "stack trace to send along");
}

void addFault(CLI::App& app, const FaultKind& kind) {
  const auto given = std::make_shared<Given>();
  CLI::App* verb = app.add_subcommand(kind.verb, kind.about);
  verb->add_option("service", given->words, "SERVICE [METHOD] " + kind.usage)->type_name("");
  addLimits(*verb, given->limit);
  if (kind.key == "exception") addExceptionParts(*verb, given);
  verb->footer([] { return describeServices(); });
  verb->footer(std::string("Without a method it holds for every method of the service; off ends it, for\n"
                           "all its methods where none is given. Without ") +
               (kind.on ? "a service" : "a value") +
               " it shows what is in\nforce, and how often that struck. orvel-sim reset ends all.");
  verb->callback([&kind, given] { runFault(kind, *given); });
}

void reset(const std::optional<std::string>& name, bool contents) {
  const std::string service = name ? serviceCalled(*name).id : "";  // empty: all
  Json order = {{"order", "reset"}, {"contents", contents}};
  if (name) order["service"] = service;
  const Json answer = device().send(order);
  Json dead = Json::array();
  const Json services = ask("services").at("services");
  for (const Json& each : services) {
    if (each.at("pid") == 0 && (service.empty() || each.at("service") == service)) {
      dead.push_back(each.at("service"));
    }
  }
  if (isJson()) return printDone({{"ended", answer.at("ended")}, {"contents", contents}, {"dead", dead}});
  for (const Json& ended : answer.at("ended")) print("ended: " + endedInWords(ended));
  if (answer.at("ended").empty()) print("no fault was in force" + (service.empty() ? "" : " for " + service));
  if (contents) print("all else is as at the start");
  for (const Json& each : dead) {
    const std::string id = each;
    print(id + " is dead: orvel-sim restart " + id);
  }
}

void addReset(CLI::App& app) {
  const auto service = std::make_shared<std::optional<std::string>>();
  const auto contents = std::make_shared<bool>(false);
  CLI::App* verb = app.add_subcommand("reset", "End all faults and flapping, of one service or of all");
  verb->add_option("service", *service, "only of this one")->type_name("");
  verb->add_flag("--contents", *contents, "every other value becomes what it was when the device started, too");
  verb->callback([service, contents] { reset(*service, *contents); });
}

}  // namespace

void addFaultVerbs(CLI::App& app) {
  for (const FaultKind& kind : faultKinds()) addFault(app, kind);
  addReset(app);
}

}  // namespace orvel::sim
