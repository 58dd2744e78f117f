#include "device/Status.h"

#include <algorithm>
#include <string>
#include <utility>

#include "device/services/Services.h"

namespace orvel::sim {
namespace {

Json serviceStatus(const Runner& runner, const Json& section) {
  const ServiceType& type = runner.type();
  Json status = {{"service", type.id},
                 {"name", type.name},
                 {"pid", runner.pid()},
                 {"sinceMs", runner.sinceMs()},
                 {"epoch", runner.lives()}};
  if (section.contains(kFlap)) status["flap"] = section.at(kFlap);
  return status;
}

Json glanceAt(const Json& scenario) {
  const Json& delegate = scenario.at("delegate");
  const Json& processes = scenario.at("activity").at("processes");
  Json foreground;
  for (const auto& [name, process] : processes.items()) {
    if (process.at("focused") == true) foreground = name;
  }
  return {{"name", delegate.at("name")},
          {"account", accountOf(delegate.at("customerId"))},
          {"screenOn", scenario.at("power").at("screenOn")},
          {"networkConnected", scenario.at("connectivity").at("networkConnected")},
          {"assistantConnected", delegate.at("maroConnected")},
          {"packages", scenario.at("packages").at("packages").size()},
          {"processes", processes.size()},
          {"foreground", foreground}};
}

Json& clientWith(Json& clients, const Json& pid, const Json& program) {
  for (Json& client : clients) {
    if (client.at("pid") == pid) return client;
  }
  clients.push_back({{"pid", pid},
                     {"client", program},
                     {"sinceMs", nullptr},
                     {"services", Json::array()},
                     {"registrations", Json::array()},
                     {"namespaces", Json::array()}});
  return clients.back();
}

}  // namespace

Json statusOf(const Json& scenario, const std::vector<std::unique_ptr<Runner>>& runners, const Json& faults) {
  Json services = Json::array();
  for (const auto& runner : runners) services.push_back(serviceStatus(*runner, scenario.at(runner->type().id)));
  Json status = {
      {"services", services}, {"clients", Json::array()}, {"faults", faults}, {"device", glanceAt(scenario)}};
  if (scenario.contains(kAbout)) status["device"]["about"] = scenario.at(kAbout);
  return status;
}

void addClients(Json& status, const Json& told) {
  Json& clients = status["clients"];
  for (const Json& each : told) {
    const Json& service = each.at("service");
    const Json& of = each.at("clients");
    if (of.contains("error")) {  // a process that does not answer
      status["unanswered"].push_back(service);
      continue;
    }
    for (const Json& connection : of.at("connections")) {
      Json& client = clientWith(clients, connection.at("pid"), connection.at("client"));
      Json& since = client["sinceMs"];
      since = since.is_null() ? connection.at("sinceMs") : std::min(since, connection.at("sinceMs"));
      client["services"].push_back(service);
    }
    for (Json registration : of.at("registrations")) {
      Json& client = clientWith(clients, registration.at("pid"), registration.at("client"));
      registration.erase("pid");
      registration.erase("client");
      Json one = {{"service", service}};
      one.update(registration);
      client["registrations"].push_back(std::move(one));
    }
  }
}

void addNamespaces(Json& status, const Json& held) {
  for (const Json& one : held) {
    clientWith(status["clients"], one.at("pid"), one.at("client"))["namespaces"].push_back(one.at("namespace"));
  }
}

}  // namespace orvel::sim
