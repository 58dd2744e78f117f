// The device as a program: it keeps the traffic and takes messages from orvel-sim in other terminals.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "device/Device.h"
#include "device/Replay.h"
#include "device/Traffic.h"
#include "tools/orvel-sim/host/ChildRunner.h"
#include "tools/orvel-sim/host/RecordingClients.h"

namespace orvel::sim {

// The device of the program. Run-loop thread.
class Supervisor : public Device, private Endpoint {
 public:
  // `isolate` gives each service a process of its own.
  Supervisor(void* runtime, Json scenario, bool isolate);

  // Requests are answered from the recording; before start. Null: by the services.
  void setReplay(std::shared_ptr<Replay> replay) { m_replay = std::move(replay); }

  // Takes the control name, then starts every service; `done` when clients can find them all. Throws std::system_error,
  // EADDRINUSE when another device lives in the runtime directory.
  void start(const Done& done);

  // Ends the services and what others wait for; before vesk_shutdown, because both need the run loop.
  void stop();

  // All that Device::status has, and what only the program knows: {"directory", "sinceMs", "traffic"}.
  void wholeStatus(const Answer& answer);

  // The newest entries, numbered without gaps.
  const std::deque<Json>& traffic() const { return m_traffic; }
  // Called when traffic() has a new entry. Null: nothing is.
  void setWatcher(std::function<void()> watcher) { m_watcher = std::move(watcher); }

  void record(Json entry) override;
  void recordSoon(Json entry) override { record(std::move(entry)); }
  Json replayed(const ServiceType& type, const Call& call) override;
  Json connections(const ServiceType& type) override;

 private:
  // A message to the control name.
  struct ControlMessage {
    Json body;
    pid_t caller;
    vesk_buffer* request;  // what follows the body
    Answer answer;         // may be given later
  };

  // A program that waits for more traffic.
  struct Listener {
    ControlMessage message;
    std::unique_ptr<Timer> patience;
  };

  int onCall(unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) override;
  void handle(const ControlMessage& message);
  void listServices(const ControlMessage& message);
  void showStatus(const ControlMessage& message);
  void resetServices(const ControlMessage& message);
  void showScenario(const ControlMessage& message);
  void takeChange(const ControlMessage& message);
  void killService(const ControlMessage& message);
  void restartService(const ControlMessage& message);
  void passEvent(const ControlMessage& message);
  void showTraffic(const ControlMessage& message);
  void startRecording(const ControlMessage& message);
  void fetchRecorded(const ControlMessage& message);

  // What the processes of the services say.
  void attachService(const ControlMessage& message);
  void serviceReady(const ControlMessage& message);
  void takeEntries(const ControlMessage& message);
  void forgetPieces(pid_t fresh);

  ChildRunner& childWith(pid_t pid);
  void setRecording(bool recorded, const Done& done);
  Json trafficAfter(const ControlMessage& message) const;

  std::vector<ChildRunner*> m_children;  // the device's runners, where the services are isolated
  std::deque<Json> m_traffic;
  std::function<void()> m_watcher;
  std::uint64_t m_entries = 0;
  const std::int64_t m_started = millisecondsSince1970();
  std::list<Listener> m_listeners;
  // Entries stay whole while there is a recorder; the processes of services have to know.
  RecordingClients m_recordingClients{runtime(), [this] { setRecording(false, [](const std::string&) {}); }};
  std::shared_ptr<Replay> m_replay;
  std::map<pid_t, std::string> m_pieces;  // of entries that a service is handing in
};

}  // namespace orvel::sim
