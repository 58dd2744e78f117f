#include "device/Device.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "device/Acts.h"

namespace orvel::sim {
namespace {

void ignore(const std::string&) {}

}  // namespace

Device::Device(void* runtime, Json scenario, const MakeRunner& makeRunner)
    : Host(runtime), m_scenario(std::move(scenario)) {
  for (const ServiceType* type : allServices()) {
    m_runners.push_back(makeRunner ? makeRunner(*type) : std::make_unique<InProcessRunner>(*type, *this));
  }
}

void Device::start(const Done& done) {
  const Done gathered = gather(done);
  for (const auto& runner : m_runners) {
    if (isAlive(runner->type())) runner->start(gathered);
  }
  for (const auto& runner : m_runners) armFlap(runner->type());
}

void Device::stop() {
  for (const auto& runner : m_runners) runner->stop();
  m_flaps.clear();  // after the runners: what they do not do any more ends with an attempt to go on flapping
  deliveries().stop();
}

void Device::change(const Json& change) {
  this->change(change, ignore, nullptr);
}

Update Device::change(const Json& change, const Done& done, const Runner* informed) {
  Json edits = m_scenario.resolve(change);
  const Done gathered = gather(done);  // after what may throw: it calls `done` when it goes
  Update update = commit(std::move(edits), gathered, informed);
  for (const Difference& difference : update.differences) {
    if (difference.field == kFlap) armFlap(serviceCalled(difference.section));
  }
  applyLiveness(update, gathered);
  return update;
}

void Device::kill(const ServiceType& type, const Done& done) {
  Runner& runner = runnerOf(type);
  const bool flaps = scenario().at(type.id).contains(kFlap);
  if (runner.pid() == 0 && !flaps) throw std::runtime_error(type.id + " is dead already");
  setAlive(type, false);
  if (runner.pid() == 0) return done({});
  runner.kill([done](const std::string&) { done({}); });
}

void Device::restart(const ServiceType& type, const Done& done) {
  Runner& runner = runnerOf(type);
  setAlive(type, true);
  const auto start = [&runner, done](const std::string&) {
    if (runner.pid() != 0) return done(runner.type().id + " was started meanwhile");
    runner.start(done);
  };
  if (runner.pid() == 0) {
    start({});
  } else {
    runner.kill(start);
  }
}

void Device::event(const ServiceType& type, const Json& event, const Answer& answer) {
  Runner& runner = runnerOf(type);
  if (runner.pid() == 0) throw std::runtime_error(type.id + " is dead");
  runner.event(event, answer);
}

Runner& Device::runnerOf(const ServiceType& type) {
  const auto runs = [&](const auto& runner) { return &runner->type() == &type; };
  return **std::find_if(m_runners.begin(), m_runners.end(), runs);
}

Update Device::commit(Json edits, const Done& done, const Runner* informed) {
  std::vector<Difference> differences = m_scenario.apply(edits);
  Update update = {++m_revision, std::move(edits), std::move(differences)};
  for (const auto& runner : m_runners) {
    if (runner.get() != informed) runner->update(update, done);
  }
  return update;
}

void Device::setAlive(const ServiceType& type, bool alive) {
  commit(m_scenario.resolve(makeAct("live", type.id, {{kAlive, alive}})), ignore, nullptr);
  m_flaps.erase(&type);
}

// Starts and kills the services that a change has made alive or dead.
void Device::applyLiveness(const Update& update, const Done& done) {
  for (const Difference& difference : update.differences) {
    if (difference.field != kAlive) continue;
    Runner& runner = runnerOf(serviceCalled(difference.section));
    const bool alive = isAlive(runner.type());
    const auto start = [this, &runner, done](const std::string&) {
      if (runner.pid() == 0 && isAlive(runner.type())) runner.start(done);
    };
    if (runner.pid() != 0) {
      runner.kill(alive ? Done(start) : done);  // one that is to live is still being killed
    } else if (alive) {
      start({});
    }
  }
}

void Device::armFlap(const ServiceType& type) {
  m_flaps.erase(&type);
  const Json& section = scenario().at(type.id);
  const auto interval = flapInterval(section);
  if (!interval) return;
  const auto series = section.at(kFlap).contains("count") ? Timer::Series::kEnds : Timer::Series::kEndless;
  m_flaps[&type] = std::make_unique<Timer>(
      runtime(), *interval, [this, &type] { flap(type); }, series);
}

void Device::flap(const ServiceType& type) {
  const Update update = commit(m_scenario.resolve(makeAct("flapOnce", type.id)), ignore, nullptr);
  m_flaps.erase(&type);  // until the service has died or come back, which may take longer than half a period
  applyLiveness(update, gather([this, &type](const std::string& error) {
                  if (!error.empty()) std::cerr << "orvel-sim: " << error << std::endl;
                  armFlap(type);
                }));
}

}  // namespace orvel::sim
