#include "Conditions.h"

#include <algorithm>
#include <cstddef>

#include "orvel/Service.h"
#include "tools/cli/Text.h"

namespace orvelctl {
namespace {

using orvel::cli::joined;
using orvel::service_apis::kAllServices;
using Value = std::optional<std::string>;

// Nothing for a name that no service has.
std::optional<Service> serviceCalled(const std::string& name) {
  for (const Service service : kAllServices) {
    if (name == nameOf(service)) return service;
  }
  return std::nullopt;
}

Value screen(Client& client, const std::string&) {
  return client.isScreenOn() ? "on" : "off";
}

Value registration(Client& client, const std::string&) {
  return client.isDeviceRegistered() ? "registered" : "unregistered";
}

Value assistant(Client& client, const std::string&) {
  return client.isMaroConnected() ? "connected" : "disconnected";
}

Value package(Client& client, const std::string& name) {
  const std::string version = client.getPackageVersionName(name, 0);
  if (!version.empty()) return version;
  const std::optional<bool> installed = isInstalled(client, name);
  return installed ? Value(*installed ? "" : "absent") : std::nullopt;
}

// With a comma in front of each and one behind all.
Value foreground(Client& client, const std::string&) {
  Names names;
  if (!client.getForegroundPackages(names)) return std::nullopt;
  std::string list = ",";
  for (const std::string& name : names) list += name + ",";
  return list;
}

const std::vector<Subject>& subjects() {
  const auto setting = [](Client& client, const std::string& key) { return client.getSecureSetting(key).value_or(""); };
  const auto name = [](Client& client, const std::string&) { return client.getDeviceName(); };
  static const std::vector<Subject> all = {
      {"setting:", {}, Service::kDelegate, true, setting},
      {"package:", {}, Service::kDelegate, true, package},
      {"screen", {"on", "off"}, Service::kPower, true, screen},
      {"name", {}, Service::kDelegate, true, name},
      {"registration", {"registered", "unregistered"}, Service::kDelegate, true, registration},
      {"assistant", {"connected", "disconnected"}, Service::kDelegate, true, assistant},
      {"network", {"connected", "disconnected"}, Service::kConnectivity, true, {}},
      {"foreground", {}, Service::kActivity, false, foreground},
  };
  return all;
}

// The subject that the words name, with the key behind it; throws CLI::ValidationError.
void findSubject(Condition& condition, const std::function<void(const std::string& why)>& refuse) {
  std::vector<std::string> known = {"device"};
  for (const Service service : kAllServices) known.emplace_back(nameOf(service));
  for (const Subject& subject : subjects()) {
    const bool keyed = subject.name.back() == ':';
    known.push_back(subject.name);
    if (keyed ? condition.words.rfind(subject.name, 0) != 0 : condition.words != subject.name) continue;
    if (keyed) condition.key = condition.words.substr(subject.name.size());
    if (keyed && condition.key.empty()) refuse(subject.name + " needs a key, as in " + subject.name + "some_key=1");
    condition.subject = &subject;
  }
  if (condition.subject != nullptr) return;
  const std::string near = orvel::cli::didYouMean(condition.words, known);
  refuse("nothing is called '" + condition.words + "'" + (near.empty() ? "; there are " + joined(known) : near));
}

}  // namespace

bool Condition::holds() const {
  if (!now) return false;
  bool same = *now == value;
  if (subject != nullptr && subject->name == "package:" && value == "installed") same = *now != "absent";
  if (subject != nullptr && subject->name == "foreground") same = now->find("," + value + ",") != std::string::npos;
  return same == equal;
}

std::string Condition::text() const {
  if (!now) return words + " is not known: " + unknown;
  if (subject != nullptr && subject->name == "foreground") {
    return words + " is " + (now->size() < 2 ? "empty" : now->substr(1, now->size() - 2));
  }
  return words + " is " + (now->empty() ? "empty" : *now);
}

Condition readCondition(const std::string& word, const std::string& state) {
  const auto refuse = [](const std::string& why) { throw CLI::ValidationError("wait", why); };
  const std::size_t equals = word.find('=');
  const bool alone = equals == std::string::npos;
  Condition condition;
  condition.equal = alone || equals == 0 || word[equals - 1] != '!';
  condition.words = word.substr(0, alone ? equals : equals - (condition.equal ? 0 : 1));
  condition.link = serviceCalled(condition.words);
  const bool is_device = condition.words == "device";
  if (!condition.link && !is_device) findSubject(condition, refuse);
  std::vector<std::string> values = {"ready"};
  if (condition.link) values = {"up", "away", "given-up"};
  if (condition.subject != nullptr) values = condition.subject->values;
  if (alone && condition.subject != nullptr) {
    refuse(word + " needs a value, as in " + word + "=" + (values.empty() ? "VALUE" : values.front()));
  }
  condition.value = !alone ? word.substr(equals + 1) : is_device ? "ready" : state;
  if (!values.empty() && std::find(values.begin(), values.end(), condition.value) == values.end()) {
    const std::string expected = values.size() == 1 ? " can only be " : " is one of ";
    refuse(condition.words + expected + joined(values) + ", not '" + condition.value + "'");
  }
  return condition;
}

std::vector<std::string> conditionWords() {
  std::vector<std::string> words = {"device=ready"};
  for (const Service service : kAllServices) {
    for (const char* state : {"=up", "=away", "=given-up"}) words.push_back(nameOf(service) + std::string(state));
  }
  for (const Subject& subject : subjects()) {
    for (const std::string& value : subject.values) words.push_back(subject.name + "=" + value);
    if (subject.name.back() == ':') {
      words.push_back(subject.name + "@" + subject.name.substr(0, subject.name.size() - 1) + "s");
    } else if (subject.values.empty()) {
      words.push_back(subject.name + "=");
    }
  }
  return words;
}

}  // namespace orvelctl
