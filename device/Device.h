// The core of the simulated device, the same in the program and in the test kit: the scenario in force, the services,
// and which of them live. What differs is where a service runs (Runner), how time passes (Timer) and what becomes of
// the traffic (Host::record).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "device/CurrentScenario.h"
#include "device/Runner.h"
#include "device/Service.h"
#include "device/Timer.h"

namespace orvel::sim {

// Keeps the scenario; the services of other processes have copies. Run-loop thread.
class Device : public Host {
 public:
  using MakeRunner = std::function<std::unique_ptr<Runner>(const ServiceType& type)>;

  // Without `makeRunner` every service runs in this process.
  Device(void* runtime, Json scenario, const MakeRunner& makeRunner = nullptr);

  // Before start: the service is never started, so that another process can take its name.
  void leaveOut(const ServiceType& type) { m_leftOut.insert(&type); }
  bool isLeftOut(const ServiceType& type) const { return m_leftOut.count(&type) != 0; }

  // Starts every service that is alive in the scenario; done when clients can find them all.
  void start(const Done& done);

  // Ends the services and what is on its way; before vesk_shutdown, because both need the run loop.
  void stop();

  const Json& scenario() const override { return m_scenario.json(); }
  std::uint64_t revision() const { return m_revision; }

  void change(const Json& change) override;
  // The same for a change from outside; done when every service knows of it but `informed`, which learns of it
  // otherwise. Throws before anything has changed.
  Update change(const Json& change, const Done& done, const Runner* informed);

  // For good: a service that flapped does so no more. Throws std::runtime_error for one that is dead for good already.
  void kill(const ServiceType& type, const Done& done);
  // Kills it first where it lives.
  void restart(const ServiceType& type, const Done& done);

  // Gives the event to the service; throws what the service throws, and std::runtime_error for a dead one.
  void event(const ServiceType& type, const Json& event, const Answer& answer);

  const std::vector<std::unique_ptr<Runner>>& runners() const { return m_runners; }

  // The device on one screen (Status.h): what there is, who is connected, what is held, which faults are in force.
  void status(const Answer& answer);

  // Ends the faults and flapping of one service, or of all without one; with `contents` every other value of theirs is
  // what it was when the device started, too. Answers with the faults that were in force, as status() has them, and
  // with {"service", "flap"} of what flapped: {"ended"}.
  void reset(const ServiceType* only, bool contents, const Answer& answer);

 protected:
  // Of an entry of the traffic, which every host records.
  void countStrikes(const Json& entry);

 private:
  bool isAlive(const ServiceType& type) const { return scenario().at(type.id).at(kAlive); }
  Runner& runnerOf(const ServiceType& type);
  Update commit(Json edits, const Done& done, const Runner* informed);
  void setAlive(const ServiceType& type, bool alive);
  void applyLiveness(const Update& update, const Done& done);
  void expectServed(const ServiceType& type) const;
  void armFlap(const ServiceType& type);
  void flap(const ServiceType& type);

  Json faultsInForce() const;
  void forgetStrikes(const Difference& difference);

  const Json m_initial;  // the scenario at the start
  CurrentScenario m_scenario;
  std::uint64_t m_revision = 0;  // counts the changes
  // Until the next death or return of those that flap.
  std::map<const ServiceType*, std::unique_ptr<Timer>> m_flaps;
  std::vector<std::unique_ptr<Runner>> m_runners;
  std::set<const ServiceType*> m_leftOut;
  // How often each fault in force has changed a call: by service, method and kind.
  std::map<std::tuple<std::string, std::string, std::string>, std::uint64_t> m_strikes;
};

}  // namespace orvel::sim
