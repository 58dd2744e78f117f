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
    return (client.*query)(names) ? std::optional(std::move(names)) : std::nullopt;
  };
}

void showPackages(Session& session, const std::string& what, const std::string& service, Json object,
                  const NamesQuery& query) {
  // A failed query gives no list, or an empty one.
  Names names;
  const auto call = [&](Client& client) {
    if (auto result = query(client)) names = *std::move(result);
    return Json(!names.empty());
  };
  if (!session.ask(what, service, false, call)) return;
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : "\n") + name;
  object["packages"] = std::move(names);
  if (session.json() || !text.empty()) session.print(object, text);
}

}  // namespace orvelctl
