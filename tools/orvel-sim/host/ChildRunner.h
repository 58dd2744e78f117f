// Runs a service in a process of its own. Run-loop thread.
#pragma once

#include <list>
#include <memory>

#include "device/Runner.h"
#include "tools/orvel-sim/host/Process.h"

namespace orvel::sim {

// The process is this program anew, running serveAlone(). One that dies unasked is started again, as a device's init
// would.
//
//   dead --start--> starting --attached, ready--> alive --kill--> dead
//                                                 alive --dies--> starting
class ChildRunner : public Runner {
 public:
  ChildRunner(const ServiceType& type, sd_event* event) : Runner(type), m_event(event) {}

  pid_t pid() const override { return m_process ? m_process->pid() : 0; }
  void update(const Update& update, Done done) override;
  void event(const Json& event, Answer answer) override;
  void clients(Answer answer) override;
  void stop() override;

  // What the process says of itself: where it takes messages, and that it serves.
  void attached(RemotePtr remote) { m_remote = std::move(remote); }
  void ready();

  // Says whether the traffic is being recorded, so that the process hands in whole entries.
  void recording(bool recorded, Done done);

  // What the process learns from the answer to a change of its own: that, behind the updates that are on their way to
  // it and that it has not read.
  Json learntFrom(const Update& own) const;

 private:
  void launch(Done done) override;
  void end(Done done) override;

  using Heard = std::function<void(int error, const Json& answer)>;
  struct Message {
    ChildRunner* runner;
    Json update;  // null: it is another message
    Heard heard;
    std::list<Message>::iterator self;
  };

  void send(const Json& message, bool isUpdate, Heard heard);
  void ended(const siginfo_t& end);

  sd_event* m_event;
  Done m_started;                 // set while starting
  Done m_killed;                  // set while being killed
  RemotePtr m_remote;             // null until attached
  std::list<Message> m_messages;  // on their way
  std::unique_ptr<Process> m_process;
};

}  // namespace orvel::sim
