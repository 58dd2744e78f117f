#include "tools/cli/Failure.h"

#include <unistd.h>

#include <iostream>
#include <iterator>
#include <string_view>

#include "tools/cli/Colour.h"
#include "tools/cli/Text.h"

namespace orvel::cli {
namespace {

using Json = nlohmann::ordered_json;

const char* wordFor(int status) {
  constexpr const char* kWords[] = {nullptr, "failed", "usage", "no-device", "timed-out", "not-bound"};
  return static_cast<std::size_t>(status) < std::size(kWords) ? kWords[status] : "interrupted";
}

Json objectOf(const Failure& failure) {
  Json object = {
      {"status", wordFor(failure.exitStatus)}, {"exitStatus", failure.exitStatus}, {"message", failure.message}};
  const auto add = [&](const char* key, const std::string& value) {
    if (!value.empty()) object[key] = value;
  };
  add("query", failure.query);
  add("service", failure.service);
  add("directory", failure.directory);
  add("reason", failure.reason);
  if (failure.code != 0) object["code"] = failure.code;
  return object;
}

}  // namespace

std::string envelope(const std::vector<Failure>& failures) {
  Json object = {{"error", objectOf(failures.front())}};
  for (std::size_t n = 1; n < failures.size(); ++n) object["further"].push_back(objectOf(failures[n]));
  return jsonText(object);
}

std::string failurePrefix(const std::string& program) {
  return coloured(STDERR_FILENO, Colour::kRed, program + ":") + " ";
}

void complain(const std::string& program, const std::string& message) {
  std::cerr << failurePrefix(program) + message + "\n" << std::flush;  // whole, though other threads write too
}

int fail(const std::string& program, const Failure& failure, bool json, bool said) {
  if (!said) complain(program, printable(failure.message));
  // Where standard output fails, that is what has been said.
  if (json && std::cout) std::cout << envelope({failure}) << std::endl;
  return failure.exitStatus;
}

bool asksForJson(int argc, const char* const* argv) {
  for (int n = 1; n < argc; ++n) {
    const std::string_view word = argv[n];
    if (word == "--") return false;  // what follows is another command's
    if (word == "--json") return true;
  }
  return false;
}

}  // namespace orvel::cli
