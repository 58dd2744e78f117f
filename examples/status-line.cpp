// Shows the device's name, network and screen: one line that is rewritten on a terminal, a line for each change into a
// pipe. Ctrl-C ends it.
//
// Usage: status-line 2>LOG
#include <poll.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "orvel/CallbackQueue.h"
#include "orvel/Session.h"

using namespace orvel::service_apis;

namespace {

class StatusLine {
 public:
  std::string name = "?", network = "?", screen = "?";
  ~StatusLine() {
    if (m_terminal) std::cout << std::endl;
  }

  void show() {
    const std::string line = name + "  network " + network + "  screen " + screen;
    if (line == m_shown) return;
    m_shown = line;
    // Not wrapped at the right edge: only one line can be rewritten.
    std::cout << (m_terminal ? "\r\033[?7l" + line + "\033[K\033[?7h" : line + '\n') << std::flush;
  }

 private:
  std::string m_shown;
  const bool m_terminal = isatty(STDOUT_FILENO) == 1;
};

int failed(const orvel::Session& session) {
  if (session.wasEnded()) return 0;
  std::cerr << "status-line: " << lastCall().text << std::endl;
  return 1;
}

}  // namespace

int main() {
  StatusLine status;
  CallbackQueue queue;
  orvel::Session session(StartOptions{{Service::kDelegate, Service::kPower}});
  if (!session) return failed(session);
  session->setExecutor(queue.executor());  // the callbacks run in the loop below, on this thread: no lock is needed

  const auto told = [&](std::string& value, const std::string& now) {
    value = now;
    status.show();
  };
  const auto names = session->subscribeDeviceNameChange([&](const std::string& now) { told(status.name, now); });
  if (!names) return failed(session);
  const auto screens = session->subscribeScreenStateChange([&](bool on) { told(status.screen, on ? "on" : "off"); });
  if (!screens) return failed(session);
  Subscription network;
  // At first, and each time that a service is back: what changed while it was away is not told.
  const auto links = session->subscribeLink([&](const Link& link) {
    if (link.state != LinkState::kUp) return;
    if (link.service == Service::kConnectivity) {  // the one subscription that the library does not make again
      network = session->subscribeNetworkConnectivityChange(
          [&](bool connected) { told(status.network, connected ? "connected" : "lost"); });
    } else if (link.service == Service::kDelegate || link.service == Service::kPower) {
      if (const auto name = checked([&] { return session->getDeviceName(); })) status.name = name.value;
      if (const auto on = checked([&] { return session->isScreenOn(); })) status.screen = on.value ? "on" : "off";
      status.show();
    }
  });

  pollfd events[] = {{queue.fd(), POLLIN, 0}, {session.fd(), POLLIN, 0}};
  while (!session.wasEnded()) {
    queue.dispatch();
    poll(events, 2, -1);
  }
}
