// Handles the voice assistant's directives of a namespace: writes each, answers it with an event of the same namespace,
// and writes what became of the event. Ctrl-C ends it.
//
// Usage: directive-handler NAMESPACE
#include <iostream>
#include <string>

#include "Ending.h"
#include "orvel/OrvelDelegateClient.h"

using orvel::service_apis::OrvelDelegateClient;

namespace {

// Runs on the client's own thread, as the result of the event does: one at a time, so that the lines need no lock. Work
// that takes long belongs on another thread, since all other callbacks wait for this one.
void handle(OrvelDelegateClient& client, const std::string& nspace, const std::string& what, const std::string& value) {
  std::cout << nspace << '.' << what << ' ' << value << std::endl;
  const std::string event = what + "Handled";
  const auto result = [event](const std::string& outcome, bool retryable) {
    std::cout << event << ": " << outcome << (retryable ? ", may be sent again" : "") << std::endl;
  };
  if (!client.sendEvent(nspace, event, "", "", "", "", "", false, value, result)) {
    std::cout << event << ": not accepted" << std::endl;
  }
}

bool subscribe(OrvelDelegateClient& client, const std::string& nspace) {
  const auto directive = [&client, nspace](const std::string& what, const std::string& value, const std::string&,
                                           const std::string&, const std::string&, const std::string&,
                                           const std::string&) { handle(client, nspace, what, value); };
  return client.registerForDirective(nspace, directive);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || *argv[1] == '\0') {
    std::cerr << "usage: directive-handler NAMESPACE" << std::endl;
    return 2;
  }
  const std::string nspace = argv[1];
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  Ending ending;
  const bool device = client.initialize();
  if (!device || !subscribe(client, nspace)) {
    if (ending.comesWithin({})) return 0;
    std::cerr << "directive-handler: "
              << (device ? "another process has the namespace " + nspace : "there is no device") << std::endl;
    return 1;
  }
  std::cerr << "directive-handler: waiting for directives of " << nspace << "; Ctrl-C ends" << std::endl;
  ending.wait();
}
