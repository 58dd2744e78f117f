#include "Commands.h"

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
  std::string text;
  for (const Json& name : *names) text += (text.empty() ? "" : "\n") + name.get<std::string>();
  object["packages"] = *names;
  if (session.json() || !text.empty()) session.print(object, text);
}

}  // namespace orvelctl
