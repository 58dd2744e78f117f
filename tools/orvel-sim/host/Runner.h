// How a service runs: in the process of the device, or in one of its own. Everything here is for the run-loop thread.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "device/Service.h"
#include "tools/orvel-sim/host/Process.h"

namespace orvel::sim {

// Told how something ended: an empty text for success, else what went wrong.
using Done = std::function<void(const std::string& error)>;

// Given the answer to an order, which has the key "error" where it failed.
using Answer = std::function<void(const Json& answer)>;
Json failure(const std::string& what);

// Starts and kills one service, any number of times.
class Runner {
 public:
  explicit Runner(const ServiceType& type) : m_type(type) {}
  virtual ~Runner() = default;
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  const ServiceType& type() const { return m_type; }
  virtual pid_t pid() const = 0;  // of the process that the service lives in; 0 while it is dead

  virtual void start(Done done) = 0;  // only while dead; done when clients can find the service
  virtual void kill(Done done) = 0;   // only while alive; done when its clients can know
  // Tells the service of a change: how the scenario was, and the news of how it is.
  virtual void update(const Json& before, const Json& news, Done done) = 0;
  virtual void event(const Json& event, Answer answer) = 0;  // only while alive
  virtual void stop() = 0;  // the device ends: drops what needs the run loop, and does not wait for the process

 private:
  const ServiceType& m_type;
};

class InProcessRunner : public Runner {
 public:
  InProcessRunner(const ServiceType& type, Host& host) : Runner(type), m_host(host) {}

  pid_t pid() const override;
  void start(Done done) override;
  void kill(Done done) override;
  void update(const Json& before, const Json& news, Done done) override;
  void event(const Json& event, Answer answer) override;
  void stop() override { m_service.reset(); }

 private:
  Host& m_host;
  std::unique_ptr<Service> m_service;  // null while dead
};

// The process is this program anew, running serveAlone(). One that dies unasked is started again, as a device's init
// would.
//
//   dead --start--> starting --attached, ready--> alive --kill--> dead
//                                                 alive --dies--> starting
class ChildRunner : public Runner {
 public:
  ChildRunner(const ServiceType& type, sd_event* event) : Runner(type), m_event(event) {}

  pid_t pid() const override { return m_process ? m_process->pid() : 0; }
  void start(Done done) override;
  void kill(Done done) override;
  void update(const Json& before, const Json& news, Done done) override;
  void event(const Json& event, Answer answer) override;
  void stop() override;

  // What the process says of itself: where it takes messages, and that it serves.
  void attached(RemotePtr remote) { m_remote = std::move(remote); }
  void ready();

 private:
  using Heard = std::function<void(int error, const Json& answer)>;
  struct Message {
    ChildRunner* runner;
    Heard heard;
    std::list<Message>::iterator self;
  };

  void tell(const Json& message, Heard heard);
  void ended(const siginfo_t& end);

  sd_event* m_event;
  Done m_started;                 // set while starting
  Done m_killed;                  // set while being killed
  RemotePtr m_remote;             // null until attached
  std::list<Message> m_messages;  // on their way
  std::unique_ptr<Process> m_process;
};

}  // namespace orvel::sim
