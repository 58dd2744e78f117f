#include "tools/orvel-sim/verbs/ControlMessages.h"

#include <iostream>
#include <memory>

#include "tools/cli/Streams.h"
#include "tools/cli/Text.h"

namespace orvel::sim {
namespace {

bool g_json = false;

}  // namespace

void print(const std::string& line) {
  std::cout << line << '\n';
  cli::flushOutput();
}

void setJson(bool json) {
  g_json = json;
}

bool isJson() {
  return g_json;
}

void printDone(const Json& done, const std::string& words) {
  if (isJson()) return print(cli::jsonText(done));
  if (!words.empty()) print(words);
}

Control& device() {
  static const auto control = std::make_unique<Control>(Control::connect());
  return *control;
}

Json ask(const char* question) {
  return device().send({{"order", question}});
}

void sendChange(const Json& change) {
  device().send({{"order", "change"}, {"change", change}});
  printDone({{"change", change}});
}

Json sendEvent(const char* service, const Json& event) {
  return device().send({{"order", "event"}, {"service", service}, {"event", event}});
}

void sendBroadcast(const Json& intent) {
  const Json answer = sendEvent("delegate", intent);
  const auto receivers = answer.at("receivers").get<std::size_t>();
  printDone({{"receivers", receivers}},
            "sent to " + std::to_string(receivers) + (receivers == 1 ? " receiver" : " receivers"));
}

}  // namespace orvel::sim
