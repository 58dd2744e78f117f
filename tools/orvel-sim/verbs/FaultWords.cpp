#include "tools/orvel-sim/verbs/FaultWords.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "device/Service.h"
#include "tools/cli/Text.h"

namespace orvel::sim {
namespace {

bool isValue(const FaultKind& kind, const std::string& word) {
  if (word == "off") return true;
  try {
    faultValueOf(kind, word);
    return !word.empty();
  } catch (const ScenarioError&) {
    return false;
  }
}

std::vector<std::string> methodsOf(const ServiceType& type) {
  std::vector<std::string> names = {kEveryMethod};
  for (const Method& method : type.methods) names.push_back(method.name);
  return names;
}

bool isMethod(const ServiceType& type, const std::string& word) {
  const std::vector<std::string> names = methodsOf(type);
  return std::find(names.begin(), names.end(), word) != names.end();
}

// One word behind the service is its method or the value.
void readOne(FaultTarget& target, const FaultKind& kind, const std::string& word) {
  if (isMethod(*target.service, word)) {
    target.method = word;
  } else if (isValue(kind, word)) {
    target.value = word;
  } else {
    std::vector<std::string> methods = methodsOf(*target.service);
    methods.erase(methods.begin());  // no word is like the star
    if (cli::didYouMean(word, methods).empty()) {
      throw ScenarioError(kind.verb + ": expected " + kind.expected + ", or a method of " + target.service->id +
                          ", not '" + word + "'; there are *" + (methods.empty() ? "" : ", ") + joined(methods));
    }
    throw ScenarioError(kind.verb + ": " + target.service->id + " has no method '" + word + "'", word, methods);
  }
}

std::vector<std::string> argumentsOf(const FaultTarget& target) {
  std::vector<std::string> names;
  for (const Method& method : target.service->methods) {
    if (!target.method.empty() && target.method != kEveryMethod && target.method != method.name) continue;
    for (const Argument& argument : method.arguments) names.push_back(argument.name);
  }
  return names;
}

std::string valueInWords(const std::string& verb, const Json& value) {
  if (value == true) return "on";
  if (verb == "error") {
    if (const char* const name = strerrorname_np(-value.get<int>())) return name;
  }
  if (!value.is_object()) return value.dump();
  std::string options = "on";
  const Json usual = complete(faultKindCalled(verb).shape, Json::object());
  for (const auto& [part, text] : value.items()) {
    if (text == usual.at(part)) continue;
    options += " --" + part + " " + cli::shellWord(text.is_string() ? text.get<std::string>() : text.dump());
  }
  return options;
}

std::string limitInWords(const Json& only) {
  std::string words;
  if (const auto arguments = only.find("arguments"); arguments != only.end()) {
    for (const auto& [name, value] : arguments->items()) {
      words += " --argument " + cli::shellWord(name + "=" + value.get<std::string>());
    }
  }
  if (only.contains("client")) words += " --client " + cli::shellWord(only.at("client"));
  if (only.contains("call")) words += " --call " + only.at("call").dump();
  return words;
}

std::string strikesInWords(const Json& count) {
  if (count == 0) return "has not struck yet";
  return "struck " + (count == 1 ? std::string("once") : count.dump() + " times");
}

}  // namespace

FaultTarget faultTargetOf(const FaultKind& kind, const std::vector<std::string>& words) {
  FaultTarget target;
  if (words.empty()) return target;
  target.service = &serviceCalled(words[0]);
  if (words.size() == 2) {
    readOne(target, kind, words[1]);
  } else if (words.size() > 2) {
    target.method = words[1] == kEveryMethod ? words[1] : methodCalled(*target.service, words[1]).name;
    target.value = words[2];
    if (target.value != "off") faultValueOf(kind, target.value);  // says what is wrong
    if (target.value.empty()) throw ScenarioError(kind.verb + ": expected " + kind.expected + ", not ''");
  }
  if (words.size() > 3) throw ScenarioError(kind.verb + ": '" + words[3] + "' is one word too many");
  return target;
}

Json limitOf(const LimitWords& words, const FaultTarget& target) {
  if (words.empty()) return {};
  Json limit = Json::object();
  for (const std::string& each : words.arguments) {
    const std::size_t equals = each.find('=');
    if (equals == std::string::npos) throw ScenarioError("--argument: expected NAME=VALUE, not '" + each + "'");
    const std::string name = each.substr(0, equals);
    const std::vector<std::string> known = argumentsOf(target);
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      const std::string where =
          target.method.empty() || target.method == kEveryMethod ? target.service->id : target.method;
      const std::string there = known.empty() ? "none" : joined(known);
      throw ScenarioError("--argument: " + where + " has no argument '" + name + "'; there are " + there, name, known);
    }
    limit["arguments"][name] = each.substr(equals + 1);
  }
  if (!words.client.empty()) limit["client"] = words.client;
  if (words.call) limit["call"] = *words.call;
  return limit;
}

std::string faultInWords(const Json& fault) {
  return fault.at("service").get<std::string>() + " " + fault.at("method").get<std::string>() + " " +
         valueInWords(fault.at("fault"), fault.at("value")) +
         (fault.contains("only") ? limitInWords(fault.at("only")) : "") + "  # " + strikesInWords(fault.at("struck"));
}

std::string flapInWords(const std::string& service, const Json& flap) {
  return service + " " + flap.at("periodMs").dump() + (flap.contains("count") ? " " + flap.at("count").dump() : "");
}

std::string endedInWords(const Json& ended) {
  if (!ended.contains("flap")) return ended.at("fault").get<std::string>() + " " + faultInWords(ended);
  return "flap " + flapInWords(ended.at("service"), ended.at("flap"));
}

}  // namespace orvel::sim
