#include "device/Device.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <utility>

#include "device/Acts.h"
#include "device/Status.h"

namespace orvel::sim {
namespace {

void ignore(const std::string&) {}

}  // namespace

Device::Device(void* runtime, Json scenario, const MakeRunner& makeRunner)
    : Host(runtime), m_initial(scenario), m_scenario(std::move(scenario)) {
  for (const ServiceType* type : allServices()) {
    m_runners.push_back(makeRunner ? makeRunner(*type) : std::make_unique<InProcessRunner>(*type, *this));
  }
}

void Device::start(const Done& done) {
  const Done gathered = gather(done);
  for (const auto& runner : m_runners) {
    if (isAlive(runner->type()) && !isLeftOut(runner->type())) runner->start(gathered);
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
  expectServed(type);
  Runner& runner = runnerOf(type);
  const bool flaps = scenario().at(type.id).contains(kFlap);
  if (runner.pid() == 0 && !flaps) throw std::runtime_error(type.id + " is dead already");
  setAlive(type, false);
  if (runner.pid() == 0) return done({});
  runner.kill([done](const std::string&) { done({}); });
}

void Device::restart(const ServiceType& type, const Done& done) {
  expectServed(type);
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
  expectServed(type);
  Runner& runner = runnerOf(type);
  if (runner.pid() == 0) throw std::runtime_error(type.id + " is dead");
  runner.event(event, answer);
}

void Device::status(const Answer& answer) {
  struct Gathered {
    Answer answer;
    Json status;
    Json clients = Json::array();
    ~Gathered() {
      addClients(status, clients);
      answer(status);
    }
  };
  const auto gathered = std::make_shared<Gathered>();
  gathered->answer = answer;
  gathered->status = statusOf(scenario(), m_runners, faultsInForce());
  for (Json& service : gathered->status.at("services")) {
    if (isLeftOut(serviceCalled(service.at("service")))) service["without"] = true;
  }
  for (const auto& runner : m_runners) {
    if (runner->pid() == 0) continue;
    runner->clients([gathered, id = runner->type().id](const Json& clients) {
      gathered->clients.push_back({{"service", id}, {"clients", clients}});
    });
  }
}

void Device::reset(const ServiceType* only, bool contents, const Answer& answer) {
  Json ended = Json::array();
  for (const Json& fault : faultsInForce()) {
    if (only == nullptr || fault.at("service") == only->id) ended.push_back(fault);
  }
  Json wanted = scenario();
  if (contents && only == nullptr) {
    wanted.erase(kAbout);
    if (const auto about = m_initial.find(kAbout); about != m_initial.end()) wanted[kAbout] = *about;
  }
  for (const auto& runner : m_runners) {
    const std::string& id = runner->type().id;
    if (only != nullptr && only->id != id) continue;
    Json& section = wanted[id];
    if (const auto flap = section.find(kFlap); flap != section.end()) {
      ended.push_back({{"service", id}, {"flap", *flap}});
      section.erase(kFlap);
      section[kAlive] = true;
    }
    if (contents) {
      const Json alive = section.at(kAlive);
      section = m_initial.at(id);
      section.erase(kFlap);
      section[kAlive] = alive;
    }
    section[kFaults] = Json::object();
  }
  const auto done = [answer, ended](const std::string& error) {
    answer(error.empty() ? Json{{"ended", ended}} : failure(error));
  };
  change({{"scenario", wanted}}, done, nullptr);
}

void Device::countStrikes(const Json& entry) {
  const auto struck = entry.find("faults");
  if (struck == entry.end()) return;
  for (const Json& fault : *struck) ++m_strikes[{entry.at("service"), fault.at("method"), fault.at("fault")}];
}

// Of what ends and of what begins: the last strike of one that has ended may be recorded behind its end.
void Device::forgetStrikes(const Difference& difference) {
  if (difference.field != kFaults) return;
  std::set<std::pair<std::string, std::string>> before;
  std::set<std::pair<std::string, std::string>> lasting;
  for (const Fault& fault : faultsIn(difference.was)) before.emplace(fault.method, fault.kind->key);
  for (const Fault& fault : faultsIn(difference.is)) {
    if (before.count({fault.method, fault.kind->key}) != 0) lasting.emplace(fault.method, fault.kind->key);
  }
  for (auto each = m_strikes.begin(); each != m_strikes.end();) {
    const auto& [service, method, kind] = each->first;
    const bool over = service == difference.section && lasting.count({method, kind}) == 0;
    each = over ? m_strikes.erase(each) : std::next(each);
  }
}

Json Device::faultsInForce() const {
  Json list = Json::array();
  for (const auto& runner : m_runners) {
    const std::string& id = runner->type().id;
    for (const Fault& fault : faultsIn(scenario().at(id).at(kFaults))) {
      Json one = {{"service", id}, {"method", fault.method}, {"fault", fault.kind->verb}, {"value", fault.value}};
      if (!fault.only.is_null()) one["only"] = fault.only;
      const auto struck = m_strikes.find({id, fault.method, fault.kind->key});
      one["struck"] = struck == m_strikes.end() ? 0 : struck->second;
      list.push_back(std::move(one));
    }
  }
  return list;
}

void Device::expectServed(const ServiceType& type) const {
  if (isLeftOut(type)) throw std::runtime_error(type.id + " is not of this device, which runs without it");
}

Runner& Device::runnerOf(const ServiceType& type) {
  const auto runs = [&](const auto& runner) { return &runner->type() == &type; };
  return **std::find_if(m_runners.begin(), m_runners.end(), runs);
}

Update Device::commit(Json edits, const Done& done, const Runner* informed) {
  std::vector<Difference> differences = m_scenario.apply(edits);
  for (const Difference& difference : differences) forgetStrikes(difference);
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
    if (isLeftOut(runner.type())) continue;
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
  if (!interval || isLeftOut(type)) return;
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
