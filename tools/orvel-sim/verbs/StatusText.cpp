#include "tools/orvel-sim/verbs/StatusText.h"

#include <algorithm>

#include "device/Shape.h"
#include "device/Traffic.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/verbs/FaultWords.h"

namespace orvel::sim {
namespace {

using Lines = std::vector<std::string>;

// In a column of so many characters, and two spaces behind it.
std::string inColumn(const std::string& text, std::size_t width) {
  constexpr std::size_t kGap = 2;
  return cli::padded(text, width + kGap, kGap);
}

std::string shown(const Json& value) {
  return value.is_string() ? cli::printable(value) : value.is_null() ? "-" : value.dump();
}

// "12:30:01"
std::string clockOf(const Json& sinceMs) {
  constexpr std::size_t kSeconds = 8;
  return sinceMs.is_null() || sinceMs == 0 ? "-" : clockTime(sinceMs).substr(0, kSeconds);
}

void addDevice(const Json& status, Lines& lines) {
  const Json& device = status.at("device");
  const auto word = [&](const char* key, const char* yes, const char* no) { return device.at(key) == true ? yes : no; };
  lines.push_back(shown(device.at("name")) + ", process " + status.at("pid").dump() + " since " +
                  clockOf(status.at("sinceMs")) + ", calls and notifications " + status.at("traffic").dump());
  lines.push_back("lives in    " + shown(status.at("directory")));
  if (device.contains("about")) lines.push_back("scenario    " + shown(device.at("about")));
  const std::string account = device.at("account");
  lines.push_back("account     " + (account.empty() ? "none" : cli::printable(account)));
  lines.push_back(std::string("screen      ") + word("screenOn", "on", "off") + ", network " +
                  word("networkConnected", "connected", "disconnected") + ", assistant " +
                  word("assistantConnected", "connected", "disconnected"));
  lines.push_back("packages    " + device.at("packages").dump() + ", processes " + device.at("processes").dump() +
                  ", in the foreground " + shown(device.at("foreground")));
}

std::string stateOf(const Json& service, const Json& unanswered) {
  const bool isWithout = service.contains("without");
  if (service.at("pid") == 0) return isWithout ? "left out" : "dead";
  if (isWithout) return "not the device's";
  if (service.contains("flap")) return "flaps";
  const bool isSilent = std::find(unanswered.begin(), unanswered.end(), service.at("service")) != unanswered.end();
  return isSilent ? "no answer" : "alive";
}

void addServices(const Json& status, Lines& lines) {
  const Json unanswered = status.value("unanswered", Json::array());
  lines.emplace_back();
  lines.emplace_back("SERVICE       STATE     PROCESS  SINCE     LIFE");
  for (const Json& service : status.at("services")) {
    const Json& pid = service.at("pid");
    lines.push_back(inColumn(service.at("service"), 12) + inColumn(stateOf(service, unanswered), 8) +
                    inColumn(pid == 0 ? "-" : pid.dump(), 7) + inColumn(clockOf(service.at("sinceMs")), 8) +
                    (service.at("epoch") == 0 ? "-" : service.at("epoch").dump()));
  }
}

std::string registrationInWords(const Json& registration) {
  return shown(registration.at("service")) + "." + shown(registration.at("method")) +
         cli::printable(describeArguments(registration.at("arguments")));
}

void addClients(const Json& status, Lines& lines) {
  lines.emplace_back();
  if (status.at("clients").empty()) return lines.emplace_back("no client is connected"), void();
  lines.emplace_back("CLIENT            PROCESS  SINCE     CONNECTED TO, REGISTERED FOR");
  for (const Json& client : status.at("clients")) {
    std::vector<std::string> services;
    for (const Json& service : client.at("services")) services.push_back(service);
    const bool isEach = services.size() == status.at("services").size();
    lines.push_back(inColumn(shown(client.at("client")), 16) + inColumn(client.at("pid").dump(), 7) +
                    inColumn(clockOf(client.at("sinceMs")), 8) +
                    (isEach             ? "every service"
                     : services.empty() ? "no service"
                                        : joined(services)));
    for (const Json& held : client.at("namespaces")) lines.push_back("    the namespace " + shown(held));
    for (const Json& each : client.at("registrations")) lines.push_back("    " + registrationInWords(each));
  }
}

void addFaults(const Json& status, Lines& lines) {
  const Json& faults = status.at("faults");
  lines.emplace_back();
  if (faults.empty()) return lines.emplace_back("no fault is in force"), void();
  lines.emplace_back("FAULT");
  for (const Json& fault : faults) lines.push_back(endedInWords(fault));
}

void addAdvice(const Json& status, Lines& lines) {
  Lines advice;
  for (const Json& service : status.at("services")) {
    const std::string id = service.at("service");
    const bool flaps = service.contains("flap");
    if (flaps) advice.push_back(id + " dies again and again: orvel-sim flap " + id + " off");
    const bool isDead = service.at("pid") == 0 && !flaps && !service.contains("without");
    if (isDead) advice.push_back(id + " is dead: orvel-sim restart " + id);
  }
  for (const Json& service : status.value("unanswered", Json::array())) {
    const std::string id = service;
    advice.push_back(id + " does not answer: orvel-sim restart " + id);
  }
  if (const std::size_t count = status.at("faults").size(); count != 0) {
    advice.push_back(std::to_string(count) + (count == 1 ? " fault is" : " faults are") + " in force: orvel-sim reset");
  }
  if (advice.empty()) return;
  lines.emplace_back();
  for (const std::string& line : advice) lines.push_back("! " + line);
}

}  // namespace

std::vector<std::string> statusLines(const Json& status) {
  Lines lines;
  addDevice(status, lines);
  addServices(status, lines);
  addClients(status, lines);
  addFaults(status, lines);
  addAdvice(status, lines);
  return lines;
}

}  // namespace orvel::sim
