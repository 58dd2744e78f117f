#include "tools/orvel-sim/verbs/FaultVerbs.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <functional>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "device/Acts.h"
#include "device/Scenario.h"
#include "device/Service.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"

namespace orvel::sim {
namespace {

using Words = std::vector<std::string>;

std::string describeServices() {
  std::string text = "Services and their methods:\n";
  for (const ServiceType* type : allServices())
    text += "  " + type->id + ": " + type->summary + "\n" + describeMethods(*type);
  return text;
}

// ---- Faults of calls ----

// A verb for one fault.
struct Fault {
  const char* verb;
  const char* about;
  const char* usage;
  const char* key;  // in the scenario
  bool valueless;   // it may be set without a value
  std::function<Json(const std::string& word)> read;
};

// Where a fault is meant to be, and what it is to become.
struct Target {
  std::optional<std::string> service;
  std::optional<std::string> method;
  std::string value;
};

Target readTarget(const Words& words) {
  const auto isValue = [](const std::string& word) {
    const auto digits = word.begin() + (word[0] == '-' ? 1 : 0);
    return word == "on" || word == "off" ||
           std::all_of(digits, word.end(), [](unsigned char c) { return std::isdigit(c); });
  };
  Target target;
  std::size_t next = 0;
  if (next < words.size()) target.service = serviceCalled(words[next++]).id;
  if (next < words.size() && !isValue(words[next])) {
    const std::string& method = words[next++];
    target.method = method == kEveryMethod ? method : methodCalled(serviceCalled(*target.service), method).name;
  }
  if (next < words.size()) target.value = words[next++];
  if (next < words.size()) throw ScenarioError("'" + words[next] + "' is one word too many");
  return target;
}

// The faults of that kind which the target has.
Json faultsInForce(const char* key, const Target& target) {
  Json list = Json::array();
  const Json scenario = inForce({});
  for (const ServiceType* type : allServices()) {
    if (target.service && *target.service != type->id) continue;
    for (const auto& [method, faults] : scenario.at(type->id).at(kFaults).items()) {
      if ((target.method && *target.method != method) || !faults.contains(key)) continue;
      list.push_back({{"service", type->id}, {"method", method}, {"value", faults.at(key)}});
    }
  }
  return list;
}

std::string faultInWords(const Json& fault) {
  const Json& value = fault.at("value");
  return fault.at("service").get<std::string>() + " " + fault.at("method").get<std::string>() + " " +
         (value == true ? "on" : value.dump());
}

CLI::App* addFault(CLI::App& app, const Fault& fault) {
  const auto words = std::make_shared<Words>();
  const auto json = std::make_shared<bool>(false);
  CLI::App* verb = app.add_subcommand(fault.verb, fault.about);
  verb->add_option("service", *words, fault.usage)->type_name("");
  verb->add_flag("--json", *json, "show what is in force as JSON");
  verb->footer(std::string("Without a method it holds for every method of the service; off ends it. Without ") +
               (fault.valueless ? "a service" : "a value") + " it shows what is in force.\n" + describeServices());
  verb->callback([fault, words, json] {
    const Target target = readTarget(*words);
    if (!target.service || (target.value.empty() && !fault.valueless)) {
      return show({[&] { return faultsInForce(fault.key, target); }, faultInWords}, *json);
    }
    Json change = changeOf({*target.service, kFaults, target.method.value_or(kEveryMethod), fault.key}, std::nullopt);
    if (target.value != "off") change["value"] = fault.read(target.value);
    sendChange(change);
  });
  return verb;
}

Json readNumber(const std::string& word) {
  Json number = Json::parse(word, nullptr, /*allow_exceptions=*/false);
  if (!number.is_number_unsigned()) throw ScenarioError("a number or off is expected, not '" + word + "'");
  return number;
}

// A word that stands for `on`, or else a value of the shape.
std::function<Json(const std::string&)> readOr(Json on, Shape shape) {
  return [on = std::move(on), shape = std::move(shape)](const std::string& word) {
    return word.empty() || word == "on" ? on : valueOf(shape, word, "value");
  };
}

void addFaults(CLI::App& app) {
  const auto exceptionParts = std::make_shared<Json>(Json::object());
  const Fault faults[] = {
      {"truncate", "Cut the replies of a service after some bytes", "SERVICE [METHOD] BYTES|off", "truncateTo", false,
       readNumber},
      {"delay", "Let a service answer late", "SERVICE [METHOD] MILLISECONDS|off", "delayMs", false, readNumber},
      {"hang", "Let a service not answer at all", "SERVICE [METHOD] [on|off]", "hang", true,
       [](const std::string&) { return true; }},
      {"drop", "Let a service close the connection of who calls it, in place of an answer",
       "SERVICE [METHOD] [N|on|off]; N: only of the next so many calls", "drop", true,
       readOr(true, Shape::flagOrNumber(1))},
      {"error", "Let calls of a service fail with a vesk error code, a negated errno value",
       "SERVICE [METHOD] [CODE|off]", "error", true, readOr(-EREMOTEIO, errorShape())},
  };
  for (const Fault& fault : faults) addFault(app, fault);

  CLI::App* exception =
      addFault(app, {"exception", "Let a service answer with an exception", "SERVICE [METHOD] [on|off]", "exception",
                     true, [exceptionParts](const std::string&) { return *exceptionParts; }});
  exception->add_option_function<int>(
      "--code", [exceptionParts](int code) { (*exceptionParts)["code"] = code; }, "exception code");
  const auto addPart = [&](const char* option, const char* key, const char* about) {
    exception->add_option_function<std::string>(
        option, [exceptionParts, key](const std::string& text) { (*exceptionParts)[key] = text; }, about);
  };
  addPart("--message", "message", "what the exception says");
  addPart("--trace", "trace", "stack trace to send along");
}

// ---- Deaths ----

void addLife(CLI::App& app, const char* order, const char* about) {
  const auto service = std::make_shared<std::string>();
  CLI::App* verb = app.add_subcommand(order, about);
  verb->add_option("service", *service, "without it, show which live")->type_name("");
  verb->footer(describeServices());
  addReading(*verb, servicesReading(), [order, service] {
    const std::string id = serviceCalled(*service).id;  // a wrong name is told without a device too
    Control::connect().send({{"order", order}, {"service", id}});
  });
}

Json flapsInForce(const Words& words) {
  Json list = Json::array();
  const Json scenario = inForce({});
  for (const ServiceType* type : allServices()) {
    const Json& section = scenario.at(type->id);
    if ((!words.empty() && words.front() != type->id) || !section.contains(kFlap)) continue;
    Json flap = {{"service", type->id}};
    flap.update(section.at(kFlap));
    list.push_back(std::move(flap));
  }
  return list;
}

std::string flapInWords(const Json& flap) {
  return flap.at("service").get<std::string>() + " " + flap.at("periodMs").dump() +
         (flap.contains("count") ? " " + flap.at("count").dump() : "");
}

void addFlap(CLI::App& app) {
  const auto words = std::make_shared<Words>();
  const auto json = std::make_shared<bool>(false);
  CLI::App* verb = app.add_subcommand("flap", "Let a service die and come back, again and again");
  verb->add_option("service", *words, "SERVICE PERIOD_MS [COUNT]|off")->type_name("")->expected(0, 3);
  verb->add_flag("--json", *json, "show what is in force as JSON");
  verb->footer(
      "It lives for the first half of every period and is dead for the second, COUNT times or until off, kill or "
      "restart.\n"
      "Without a period it shows what is in force.");
  verb->callback([words, json] {
    if (!words->empty()) serviceCalled(words->front());
    if (words->size() < 2) return show({[&] { return flapsInForce(*words); }, flapInWords}, *json);
    Json values = Json::object();
    if (words->size() > 2 || words->at(1) != "off") {
      const auto number = [&](const char* key, const std::string& word) {
        values[key] = changeOf({words->front(), kFlap, key}, word).at("value");
      };
      number("periodMs", words->at(1));
      if (words->size() > 2) number("count", words->at(2));
    }
    sendChange(makeAct("flap", words->front(), values));
  });
}

}  // namespace

Reading servicesReading() {
  const auto inWords = [](const Json& service) {
    const auto pid = service.at("pid").get<int>();
    std::ostringstream line;
    line << std::left << std::setw(14) << service.at("service").get<std::string>() << std::setw(46)
         << service.at("name").get<std::string>() << (pid == 0 ? "dead" : "process " + std::to_string(pid));
    return line.str();
  };
  return {[] { return ask("services").at("services"); }, inWords};
}

void addFaultVerbs(CLI::App& app) {
  addFaults(app);
  addLife(app, "kill", "Kill a service; it stays dead until it is restarted");
  addLife(app, "restart", "Start a service anew, with the scenario as it is");
  addFlap(app);
}

}  // namespace orvel::sim
