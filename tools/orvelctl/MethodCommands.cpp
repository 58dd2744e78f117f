// orvelctl list, describe and call: every method of the client by its name.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Arguments.h"
#include "Commands.h"
#include "Methods.h"

namespace orvelctl {
namespace {

constexpr char kCallFooter[] = R"(
ARGUMENTS is a JSON object, - for one on standard input; a method without arguments needs none. orvelctl describe METHOD
shows what it takes, and a line that can be tried. METHOD is SERVICE.NAME, or the name alone.)";

Json argumentsOf(const Method& method) {
  Json list = Json::array();
  for (const Argument& argument : method.arguments) {
    list.push_back({{"name", argument.name}, {"type", argument.type}, {"required", argument.required}});
  }
  return list;
}

Json objectOf(const Method& method) {
  Json object = {{"method", method.path()}, {"about", method.about}};
  if (method.call) object["arguments"] = argumentsOf(method);
  object["result"] = method.result;
  object["example"] = method.exampleLine();
  object["same"] = "orvelctl " + method.command;
  return object;
}

// "getSecureSettingInt(key, [defaultValue])"
std::string signatureOf(const Method& method) {
  std::string list;
  for (const Argument& argument : method.arguments) {
    list += (list.empty() ? "" : ", ") + (argument.required ? argument.name : "[" + argument.name + "]");
  }
  return method.path() + (method.call ? "(" + list + ")" : "");
}

// "delegate", "client" where no service is asked.
std::string groupOf(const Method& method) {
  const std::string path = method.path();
  return path.substr(0, path.find('.'));
}

// All methods of a service, or that one; throws CLI::ValidationError.
std::vector<const Method*> methodsCalled(const std::string& name) {
  std::vector<const Method*> called;
  for (const Method& method : methods()) {
    if (groupOf(method) == name) called.push_back(&method);
  }
  if (called.empty()) called.push_back(&methodCalled(name));
  return called;
}

void listMethods(Session& session, const std::string& only) {
  std::size_t width = 0;
  for (const Method& method : methods()) width = std::max(width, method.path().size());
  for (const Method& method : methods()) {
    const std::string path = method.path();
    if (!only.empty() && groupOf(method) != only) continue;
    session.print(objectOf(method), path + std::string(width + 2 - path.size(), ' ') + method.about);
  }
}

void describe(Session& session, const Method& method) {
  std::vector<std::string> lines = {signatureOf(method), "  " + method.about};
  for (const Argument& argument : method.arguments) {
    lines.push_back("  argument  " + argument.name + ": " + argument.type + (argument.required ? "" : ", optional"));
  }
  lines.push_back("  result    " + method.result);
  lines.push_back("  the same  orvelctl " + method.command);
  if (method.call) lines.push_back("  example   " + method.exampleLine());
  session.print(objectOf(method), lines);
}

// The arguments of a call; throws CLI::ValidationError.
Json readArguments(const Method& method, const std::string& word) {
  const std::string text = word == "-" ? readFile("arguments", word) : word;
  Json given = text.empty() ? Json::object() : Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!given.is_object()) {
    throw CLI::ValidationError("arguments", "expected a JSON object, as in " + method.exampleLine());
  }
  std::vector<std::string> known;
  for (const Argument& argument : method.arguments) known.push_back(argument.name);
  refuseOthers(given, method.path(), known);
  return given;
}

void addCall(Commands& commands) {
  struct Words {
    std::string method;
    std::string arguments;
    Command run;
  };
  const auto words = std::make_shared<Words>();
  CLI::App* call = commands.add("call", "Call a method of the library and print its result",
                                [words](Session& session) { words->run(session); });
  addText(call, "method", words->method, "");
  call->add_option("arguments", words->arguments, "")->type_name("");
  call->footer(std::string(kCallFooter + 1) + "\n\nTypes that are objects, of which every member may be left out:\n" +
               kObjectTypes);
  call->parse_complete_callback([words] {
    const Method& method = methodCalled(words->method);
    if (!method.call) {
      throw CLI::ValidationError("method", method.path() + " tells by callback; use: orvelctl " + method.command);
    }
    words->run = method.call(readArguments(method, words->arguments));
  });
}

}  // namespace

void addMethodCommands(Commands& commands) {
  const auto service = std::make_shared<std::string>();
  std::vector<std::string> services = {"client"};
  for (const Service each : orvel::service_apis::kAllServices) services.emplace_back(nameOf(each));
  commands
      .add("list", "List the library's methods, by the service that they ask",
           [service](Session& session) { listMethods(session, *service); })
      ->add_option("service", *service, "only those of one")
      ->check(CLI::IsMember(services));

  const auto name = std::make_shared<std::string>();
  CLI::App* description =
      commands.add("describe", "Show a method's arguments and result, and a line that calls it; of a service, all",
                   [name](Session& session) {
                     for (const Method* method : methodsCalled(*name)) describe(session, *method);
                   });
  addText(description, "method", *name, "");
  description->parse_complete_callback([name] { methodsCalled(*name); });
  addCall(commands);
}

}  // namespace orvelctl
