// The device: it keeps the scenario and the traffic, runs the services, and takes orders from other terminals.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "device/Replay.h"
#include "device/Service.h"
#include "tools/orvel-sim/host/Recorders.h"
#include "tools/orvel-sim/host/Runner.h"

namespace orvel::sim {

// Under which the supervisor takes orders. A device is a runtime directory in which somebody serves this name.
constexpr char kControlName[] = "orvel-sim-control";

// The one that knows the scenario; processes of services have copies. Run-loop thread.
class Supervisor : public Host, private Endpoint {
 public:
  // `isolate` gives each service a process of its own.
  Supervisor(void* runtime, Json scenario, bool isolate);

  // Requests are answered from the recording; before start. Null: by the services.
  void setReplay(std::shared_ptr<Replay> replay) { m_replay = std::move(replay); }

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
  Json replayed(const ServiceType& type, const Call& call) override;

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
  void startRecording(const Order& order);
  void fetchRecorded(const Order& order);

  // What the processes of the services say.
  void attachService(const Order& order);
  void serviceReady(const Order& order);
  void takeEntries(const Order& order);

  Json become(Json scenario, pid_t changer, const Done& done);
  bool isAlive(const ServiceType& type) const;
  void decree(const ServiceType& type, bool alive);
  void live(const Json& before, const Done& done);
  void armFlap(const ServiceType& type);
  void flap(const ServiceType& type);
  void tell(const std::string& service, const Json& event, const Answer& answer);
  Runner& runnerOf(const Order& order);
  Runner& runnerOf(const std::string& service);
  ChildRunner& childWith(pid_t pid);
  Json trafficAfter(const Order& order) const;
  Json news() const;

  Json m_scenario;
  std::uint64_t m_revision = 0;  // counts the changes
  std::deque<Json> m_traffic;    // the newest entries, numbered without gaps
  std::uint64_t m_entries = 0;
  std::list<Listener> m_listeners;
  // Entries stay whole while somebody records; the services have to know.
  Recorders m_recorders{runtime(), [this] { become(m_scenario, 0, [](const std::string&) {}); }};
  std::shared_ptr<Replay> m_replay;
  std::map<pid_t, std::string> m_pieces;                         // of entries that a service is handing in
  std::map<const ServiceType*, std::unique_ptr<Timer>> m_flaps;  // until the next death or return of those that flap
  std::vector<std::unique_ptr<Runner>> m_runners;
};

}  // namespace orvel::sim
