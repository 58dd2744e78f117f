#include "Commands.h"

#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "orvel/CallStatus.h"

namespace orvelctl {

CLI::Option* addText(CLI::App* subcommand, const std::string& name, std::string& value, const std::string& about) {
  const auto check = [](const std::string& given) { return given.empty() ? "it is empty" : ""; };
  return subcommand->add_option(name, value, about)->required()->check(check, "", "")->type_name("");
}

std::optional<double> readReal(const std::string& word) {
  char* end = nullptr;
  const double value = std::strtod(word.c_str(), &end);
  return !word.empty() && *end == '\0' ? std::optional(value) : std::nullopt;
}

std::optional<std::string> readText(const std::string& word) {
  return word;
}

std::optional<bool> readTruth(const std::string& word) {
  if (word != "true" && word != "false") return std::nullopt;
  return word == "true";
}

std::optional<orvel::service_apis::ComponentName> readComponent(const std::string& word) {
  const std::size_t slash = word.find('/');
  if (slash == 0 || slash == std::string::npos || slash + 1 == word.size()) return std::nullopt;
  const std::string package = word.substr(0, slash);
  const std::string name = word.substr(slash + 1);
  return orvel::service_apis::ComponentName{package, name.front() == '.' ? package + name : name};
}

std::string readFile(const std::string& argument, const std::string& name) {
  std::ostringstream text;
  std::ifstream file;
  errno = 0;
  if (name != "-") file.open(name, std::ios::binary);
  text << (name == "-" ? std::cin : file).rdbuf();
  if (errno != 0) throw CLI::ValidationError(argument, "cannot read " + name + ": " + std::strerror(errno));
  return text.str();
}

std::optional<bool> isInstalled(Client& client, const std::string& package) {
  const std::string version = client.getPackageVersionCode(package, 0);
  return orvel::service_apis::lastCall() ? std::optional(!version.empty()) : std::nullopt;
}

Failure notInstalled(const std::string& what, const std::string& package) {
  Failure failure{kFailed, "package " + package + " is not installed", what, boundName(Service::kDelegate)};
  failure.reason = "not-installed";
  return failure;
}

NamesQuery namesBy(bool (Client::*query)(Names&)) {
  return [query](Client& client) {
    Names names;
    (client.*query)(names);
    return names;
  };
}

int readFallback(const std::optional<std::string>& word) {
  const std::optional<int> number = word ? readNumber<int>(*word) : 0;
  if (!number) throw CLI::ValidationError("--default", "expected a number of 32 bits, not '" + *word + "'");
  return *number;
}

void showPackages(Session& session, const std::string& what, Service service, Json object, const NamesQuery& query) {
  const auto names = session.ask(what, service, query);
  if (!names) return;
  object["packages"] = *names;
  if (session.json() || !names->empty()) session.print(object, names->get<Names>());
}

}  // namespace orvelctl
