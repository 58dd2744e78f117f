#include "tools/orvel-sim/verbs/ControlMessages.h"

#include <iostream>

#include "tools/cli/Streams.h"
#include "tools/orvel-sim/host/Control.h"

namespace orvel::sim {

void print(const std::string& line) {
  std::cout << line << '\n';
  cli::flushOutput();
}

Json ask(const char* question) {
  return Control::connect().send({{"order", question}});
}

void sendChange(const Json& change) {
  Control::connect().send({{"order", "change"}, {"change", change}});
}

Json sendEvent(const char* service, const Json& event) {
  return Control::connect().send({{"order", "event"}, {"service", service}, {"event", event}});
}

void sendBroadcast(const Json& intent) {
  const Json answer = sendEvent("delegate", intent);
  const auto receivers = answer.at("receivers").get<std::size_t>();
  print("sent to " + std::to_string(receivers) + (receivers == 1 ? " receiver" : " receivers"));
}

}  // namespace orvel::sim
