// The device: it keeps the scenario and the traffic, runs the services, and takes orders from other terminals.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sim/Runner.h"
#include "sim/Service.h"

namespace orvel::sim {

// Under which the supervisor takes orders. A device is a runtime directory in which somebody serves this name.
constexpr char kControlName[] = "orvel-sim-control";

// The one that knows the scenario; processes of services have copies. Run-loop thread.
class Supervisor : public Host, private Endpoint {
 public:
  // `isolate` gives each service a process of its own.
  Supervisor(void* runtime, Json scenario, bool isolate);

  // Takes the control name, then starts every service; `done` when clients can find them all. Throws std::system_error,
  // EADDRINUSE when another device lives in the runtime directory.
  void start(Done done);

  // Ends the services and what others wait for; before vesk_shutdown, because both need the run loop.
  void stop();

  const std::vector<std::unique_ptr<Runner>>& runners() const { return m_runners; }

  const Json& scenario() const override { return m_scenario; }
  void change(const Json& change) override;
  void record(Json entry) override;
  void recordSoon(Json entry) override { record(std::move(entry)); }

 private:
  // What a client of the control name wants.
  struct Order {
    Json text;
    pid_t caller;
    vesk_buffer* request;  // what follows the text
    Answer answer;         // may be given later
  };

  // Somebody who waits for more traffic.
  struct Listener {
    Order order;
    std::unique_ptr<Timer> patience;
  };

  int onCall(unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) override;
  void obey(const Order& order);
  void listServices(const Order& order);
  void showScenario(const Order& order);
  void takeChange(const Order& order);
  void killService(const Order& order);
  void restartService(const Order& order);
  void passEvent(const Order& order);
  void showTraffic(const Order& order);

  // What the processes of the services say.
  void attachService(const Order& order);
  void serviceReady(const Order& order);
  void takeEntries(const Order& order);

  void become(Json scenario, pid_t changer, const Done& done);
  Runner& runnerOf(const Order& order);
  ChildRunner& childWith(pid_t pid);
  Json trafficAfter(const Order& order) const;
  Json news() const;

  Json m_scenario;
  std::uint64_t m_revision = 0;  // counts the changes
  std::deque<Json> m_traffic;    // the newest entries, numbered without gaps
  std::uint64_t m_entries = 0;
  std::list<Listener> m_listeners;
  std::vector<std::unique_ptr<Runner>> m_runners;
};

}  // namespace orvel::sim
