// A client whose delegate service is hostile. Lives once for each line "run" on standard input: initialises the client, asks the
// delegate service for a name, registers with it twice and asks another service whether the screen is on; writes what it got;
// and shuts down at the next line.
#include <iostream>
#include <string>

#include "orvel/OrvelDelegateClient.h"

int main() {
  auto& client = orvel::service_apis::OrvelDelegateClient::getClient();
  for (std::string line; std::getline(std::cin, line) && line == "run";) {
    const bool initialised = client.initialize();
    const std::string name = client.getDeviceName();
    client.registerForSecureSettingIntChange("volume_alarm", 0, [](int) {});
    client.registerForScreenStateChange([](bool) {});
    std::cout << "asked " << initialised << client.isScreenOn() << " [" << name << ']' << std::endl;
    std::getline(std::cin, line);
    client.shutdown();
    std::cout << "ended" << std::endl;
  }
}
