// Shows the device's name, network and screen: one line that is rewritten on a terminal, a line for each change into a
// pipe. Ctrl-C ends it.
//
// Usage: status-line [SECONDS] 2>LOG; the name is asked for again every so many seconds (60)
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>

#include "Ending.h"
#include "orvel/OrvelDelegateClient.h"

using orvel::service_apis::OrvelDelegateClient;

namespace {

// Threads: any.
class StatusLine {
 public:
  std::string name = "?", network = "?", screen = "?";
  ~StatusLine() {
    if (m_terminal) std::cout << std::endl;
  }

  // Changes members, and shows them if that made a difference. The change runs under the lock and may ask the client
  // there: what a callback has to tell meanwhile waits, and is not overwritten by an older answer.
  template <typename Change>
  void update(Change change) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    change();
    const std::string line = name + "  network " + network + "  screen " + screen;
    if (line == m_shown) return;
    m_shown = line;
    // Not wrapped at the right edge: only one line can be rewritten.
    std::cout << (m_terminal ? "\r\033[?7l" + line + "\033[K\033[?7h" : line + '\n') << std::flush;
  }

 private:
  std::mutex m_mutex;
  std::string m_shown;
  const bool m_terminal = isatty(STDOUT_FILENO) == 1;
};

bool follow(OrvelDelegateClient& client, StatusLine& status) {
  const auto name = [&](const std::string& now) { status.update([&] { status.name = now; }); };
  const auto network = [&](bool now) { status.update([&] { status.network = now ? "connected" : "lost"; }); };
  const auto screen = [&](bool now) { status.update([&] { status.screen = now ? "on" : "off"; }); };
  return client.registerForDeviceNameChange(name) && client.registerForNetworkConnectivityChange(network) &&
         client.registerForScreenStateChange(screen);
}

}  // namespace

int main(int argc, char** argv) {
  const std::chrono::seconds period(argc > 1 ? std::atoi(argv[1]) : 60);
  if (argc > 2 || period.count() < 1) {
    std::cerr << "usage: status-line [SECONDS]" << std::endl;
    return 2;
  }
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  StatusLine status;
  Ending ending;
  if (!client.initialize() || !follow(client, status)) {
    if (ending.comesWithin({})) return 0;
    std::cerr << "status-line: there is no device, or its services do not answer" << std::endl;
    return 1;
  }
  // After subscribing, so that no change falls in between. The network can only be heard of; the screen is asked for
  // once, since a failure answers "off" too.
  const auto ask = [&] {
    if (const std::string now = client.getDeviceName(); !now.empty()) status.name = now;
    if (status.screen == "?") status.screen = client.isScreenOn() ? "on" : "off";
  };
  do {  // and again, for what changed while a service was dead is not told
    status.update(ask);
  } while (!ending.comesWithin(period));
}
