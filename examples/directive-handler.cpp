// Handles the voice assistant's directives of a namespace: writes each, answers it with an event of the same namespace,
// and writes what became of the event. Ctrl-C ends it.
//
// Usage: directive-handler NAMESPACE
#include <chrono>
#include <iostream>
#include <string>

#include "orvel/Session.h"

using namespace orvel::service_apis;

namespace {

// Runs on the client's own thread, as the event's outcome does. Work that takes long belongs on another thread, since
// all other callbacks wait for this one.
void handle(const std::string& nspace, const std::string& what, const std::string& value) {
  std::cout << nspace << '.' << what << ' ' << value << std::endl;
  AssistantEvent event;
  event.nspace = nspace;
  event.name = what + "Handled";
  event.payload = value;
  event.deadline = std::chrono::minutes(1);
  const auto tell = [name = event.name](const EventOutcome& outcome) {
    std::cout << name << ": " << outcome.result << (outcome.retryable ? ", may be sent again" : "") << std::endl;
  };
  if (!OrvelDelegateClient::getClient().send(event, tell)) std::cout << event.name << ": not accepted" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || *argv[1] == '\0') {
    std::cerr << "usage: directive-handler NAMESPACE" << std::endl;
    return 2;
  }
  const std::string nspace = argv[1];
  orvel::Session session(StartOptions{{Service::kCoordinator, Service::kEvents}});
  const auto take = [&](const auto& what, const auto& value, const auto&...) { handle(nspace, what, value); };
  const Subscription directives = session ? session->subscribeDirective(nspace, take) : Subscription();
  if (!directives && !session.wasEnded()) {
    std::cerr << "directive-handler: " << nspace << ": " << lastCall().text << std::endl;
    return 1;
  }
  std::cerr << "directive-handler: waiting for directives of " << nspace << "; Ctrl-C ends" << std::endl;
  session.wait();
}
