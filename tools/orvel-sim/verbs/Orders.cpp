#include "tools/orvel-sim/verbs/Orders.h"

#include <iostream>

#include "tools/cli/Streams.h"
#include "tools/orvel-sim/host/Control.h"

namespace orvel::sim {

void print(const std::string& line) {
  std::cout << line << '\n';
  cli::flushOutput();
}

Json order(const char* name) {
  return Control::connect().send({{"order", name}});
}

void orderChange(const Json& change) {
  Control::connect().send({{"order", "change"}, {"change", change}});
}

Json orderEvent(const char* service, const Json& event) {
  return Control::connect().send({{"order", "event"}, {"service", service}, {"event", event}});
}

void orderBroadcast(const Json& intent) {
  const Json answer = orderEvent("delegate", intent);
  const auto receivers = answer.at("receivers").get<std::size_t>();
  print("sent to " + std::to_string(receivers) + (receivers == 1 ? " receiver" : " receivers"));
}

}  // namespace orvel::sim
