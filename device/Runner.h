// Where a service of the device runs: the interface, and the way to run one in this process. All for the run-loop
// thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "device/CurrentScenario.h"
#include "device/Service.h"

namespace orvel::sim {

// Called with the outcome: empty on success, else the error message.
using Done = std::function<void(const std::string& error)>;

// A Done to hand out any number of times. When the last copy is gone, `done` is called with all the errors that came.
Done gather(Done done);

// Called with the answer to a message, which has the key "error" where that failed.
using Answer = std::function<void(const Json& answer)>;
Json failure(const std::string& what);

// One change of the scenario, which is made already.
struct Update {
  std::uint64_t revision;  // counts the changes
  Json edits;              // for a process with a copy of the scenario
  std::vector<Difference> differences;
};

// Starts and kills one service, any number of times.
class Runner {
 public:
  explicit Runner(const ServiceType& type) : m_type(type) {}
  virtual ~Runner() = default;
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  const ServiceType& type() const { return m_type; }
  virtual pid_t pid() const = 0;  // of the process that the service runs in; 0 while it is dead

  virtual void start(Done done) = 0;  // only while dead; done when clients can find the service
  virtual void kill(Done done) = 0;   // only while alive; done when its clients can know
  virtual void update(const Update& update, Done done) = 0;
  virtual void event(const Json& event, Answer answer) = 0;  // only while alive; may throw what the service throws
  virtual void stop() = 0;  // the device ends: drops what needs the run loop, and does not wait for a process

 private:
  const ServiceType& m_type;
};

// Runs the service in this process, where it reads the host's own scenario. Everything is done when the call returns.
class InProcessRunner : public Runner {
 public:
  InProcessRunner(const ServiceType& type, Host& host) : Runner(type), m_host(host) {}

  pid_t pid() const override;
  void start(Done done) override;
  void kill(Done done) override;
  void update(const Update& update, Done done) override;
  void event(const Json& event, Answer answer) override;
  void stop() override { m_service.reset(); }

 private:
  Host& m_host;
  std::unique_ptr<Service> m_service;  // null while dead
};

}  // namespace orvel::sim
