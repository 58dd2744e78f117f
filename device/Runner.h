// Where a service of the device runs: the interface, and the way to run one in this process. All for the run-loop
// thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
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

  void start(Done done);  // only while dead; done when clients can find the service
  void kill(Done done);   // only while alive; done when its clients can know
  virtual void update(const Update& update, Done done) = 0;
  virtual void event(const Json& event, Answer answer) = 0;  // only while alive; may throw what the service throws
  // What the service keeps of its clients, as Service::clients has it. Only while alive.
  virtual void clients(Answer answer) = 0;
  virtual void stop() = 0;  // the device ends: drops what needs the run loop, and does not wait for a process

  // Called whenever the service has been started or has died.
  void onLife(std::function<void(bool alive)> told) { m_told = std::move(told); }

  // How often the service was started, and when it was started or killed last, in milliseconds since 1970.
  std::uint64_t lives() const { return m_lives; }
  std::int64_t sinceMs() const { return m_since; }

 protected:
  // start and kill have said so themselves.
  void tell(bool alive);

 private:
  virtual void launch(Done done) = 0;
  virtual void end(Done done) = 0;

  const ServiceType& m_type;
  std::function<void(bool alive)> m_told;
  std::uint64_t m_lives = 0;
  std::int64_t m_since = 0;
};

// Runs the service in this process, where it reads the host's own scenario. Everything is done when the call returns.
class InProcessRunner : public Runner {
 public:
  InProcessRunner(const ServiceType& type, Host& host) : Runner(type), m_host(host) {}

  pid_t pid() const override;
  void update(const Update& update, Done done) override;
  void event(const Json& event, Answer answer) override;
  void clients(Answer answer) override;
  void stop() override { m_service.reset(); }

 private:
  void launch(Done done) override;
  void end(Done done) override;

  Host& m_host;
  std::unique_ptr<Service> m_service;  // null while dead
};

}  // namespace orvel::sim
