#include "tools/orvel-sim/verbs/LifeVerbs.h"

#include <algorithm>
#include <iomanip>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "device/Acts.h"
#include "device/Scenario.h"
#include "device/Service.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/FaultWords.h"

namespace orvel::sim {
namespace {

using Words = std::vector<std::string>;

// "all" is every one that the order can be for: those that live, or those that are dead. A wrong name is told without a
// device too.
Words servicesCalled(const Words& names, bool alive) {
  Words ids;
  for (const std::string& name : names) {
    if (name != "all") ids.push_back(serviceCalled(name).id);
  }
  if (ids.size() == names.size()) return ids;
  if (names.size() > 1) throw ScenarioError("'all' stands for every service, and alone");
  const Json services = ask("services").at("services");
  for (const Json& service : services) {
    if (!service.contains("without") && (!alive || service.at("pid") != 0)) ids.push_back(service.at("service"));
  }
  return ids;
}

void addLife(CLI::App& app, const std::string& order, const char* about) {
  const auto services = std::make_shared<Words>();
  CLI::App* verb = app.add_subcommand(order, about);
  verb->add_option("service", *services, "any number of them, or all; without one, show which live")->type_name("");
  verb->footer([] {
    std::string text = "Services:\n";
    for (const ServiceType* type : allServices()) text += "  " + type->id + ": " + type->summary + "\n";
    return text;
  });
  addReading(*verb, servicesReading(), [order, services] {
    for (const std::string& id : servicesCalled(*services, order == "kill")) {
      device().send({{"order", order}, {"service", id}});
      printDone({{"order", order}, {"service", id}});
    }
  });
}

Json flapsInForce(const Words& words) {
  Json list = Json::array();
  const Json scenario = inForce({});
  for (const ServiceType* type : allServices()) {
    const Json& section = scenario.at(type->id);
    if ((!words.empty() && &serviceCalled(words.front()) != type) || !section.contains(kFlap)) continue;
    Json flap = {{"service", type->id}};
    flap.update(section.at(kFlap));
    list.push_back(std::move(flap));
  }
  return list;
}

void flap(const Words& words) {
  if (words.size() > 3) throw ScenarioError("flap: '" + words[3] + "' is one word too many");
  const std::string id = words.empty() ? "" : serviceCalled(words.front()).id;
  if (words.size() < 2) {
    const Json flaps = flapsInForce(words);
    if (isJson()) return print(cli::jsonText({{"flaps", flaps}}));
    if (flaps.empty()) print("no service flaps");
    for (const Json& each : flaps) print(flapInWords(each.at("service"), each));
    return;
  }
  Json values = Json::object();
  if (words.size() > 2 || words[1] != "off") {
    const auto number = [&](const char* key, const std::string& word) {
      values[key] = changeOf({id, kFlap, key}, word).at("value");
    };
    number("periodMs", words[1]);
    if (words.size() > 2) number("count", words[2]);
  } else if (flapsInForce({id}).empty() && !isJson()) {
    return print("nothing was in force: flap " + id);
  }
  sendChange(makeAct("flap", id, values));
}

void addFlap(CLI::App& app) {
  const auto words = std::make_shared<Words>();
  CLI::App* verb = app.add_subcommand("flap", "Let a service die and come back, again and again");
  verb->add_option("service", *words, "SERVICE PERIOD_MS [COUNT]|off")->type_name("");
  verb->footer(
      "It lives for the first half of every period and is dead for the second, COUNT\n"
      "times or until off, kill or restart. Without a period it shows what is in force.");
  verb->callback([words] { flap(*words); });
}

}  // namespace

std::string describeServices() {
  std::string text = "Services and their methods:\n";
  for (const ServiceType* type : allServices())
    text += "  " + type->id + ": " + type->summary + "\n" + describeMethods(*type);
  return text;
}

Reading servicesReading() {
  const auto inWords = [](const Json& service) {
    const auto pid = service.at("pid").get<int>();
    const bool isWithout = service.contains("without");
    std::ostringstream line;
    line << std::left << std::setw(14) << service.at("service").get<std::string>() << std::setw(46)
         << service.at("name").get<std::string>()
         << (pid == 0 ? (isWithout ? "left out" : "dead") : "process " + std::to_string(pid))
         << (pid != 0 && isWithout ? ", not the device's" : "");
    return line.str();
  };
  return {[] { return ask("services").at("services"); }, inWords};
}

void addLifeVerbs(CLI::App& app) {
  addLife(app, "kill", "Kill services; they stay dead until they are restarted");
  addLife(app, "restart", "Start services anew, with the scenario as it is");
  addFlap(app);
}

}  // namespace orvel::sim
