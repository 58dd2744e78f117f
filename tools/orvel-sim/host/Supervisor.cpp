#include "tools/orvel-sim/host/Supervisor.h"

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <map>
#include <utility>

#include "device/Acts.h"

namespace orvel::sim {
namespace {

constexpr std::size_t kEntriesKept = 1000;
// How long somebody who waits for traffic gets no answer; below vesk's call limit.
constexpr std::chrono::seconds kListenerPatience(10);

// Holds a call that is owed an answer, and fails it when nobody gave one.
struct Owed {
  explicit Owed(vesk_deferred* deferred) : call(deferred) {}
  ~Owed() { give(-ECANCELED, nullptr); }
  Owed(const Owed&) = delete;
  Owed& operator=(const Owed&) = delete;

  void give(int error, vesk_payload* reply) {
    if (vesk_deferred* owed = std::exchange(call, nullptr)) vesk_deferred_answer(owed, error, reply);
  }

  vesk_deferred* call;
};

// A Done that several may have: when the last copy is gone, `done` is told all that went wrong.
Done gather(Done done) {
  struct Outcome {
    Done done;
    std::string errors;
    ~Outcome() { done(errors); }
  };
  const auto outcome = std::make_shared<Outcome>();
  outcome->done = std::move(done);
  return [outcome](const std::string& error) {
    if (!error.empty()) outcome->errors += (outcome->errors.empty() ? "" : "; ") + error;
  };
}

}  // namespace

Supervisor::Supervisor(void* runtime, Json scenario, bool isolate) : Host(runtime), m_scenario(std::move(scenario)) {
  for (const ServiceType* type : allServices()) {
    if (isolate) {
      m_runners.push_back(std::make_unique<ChildRunner>(*type, vesk_service_event(runtime)));
    } else {
      m_runners.push_back(std::make_unique<InProcessRunner>(*type, *this));
    }
  }
}

void Supervisor::start(Done done) {
  check(vesk_service_register(this->runtime(), kControlName, Endpoint::get()), kControlName);
  const Done gathered = gather(std::move(done));
  for (const auto& runner : m_runners) {
    if (isAlive(runner->type())) runner->start(gathered);
  }
  for (const auto& runner : m_runners) armFlap(runner->type());
  if (m_replay) {
    m_replay->start(*this, [this](const Json& directive) { tell("coordinator", directive, [](const Json&) {}); });
  }
}

void Supervisor::stop() {
  m_listeners.clear();
  m_recorders.stop();
  if (m_replay) m_replay->stop();
  for (const auto& runner : m_runners) runner->stop();
  m_flaps.clear();  // after the runners: what they do not do any more ends with an attempt to go on flapping
  deliveries().stop();
}

void Supervisor::change(const Json& change) {
  become(changed(m_scenario, change), 0, [](const std::string&) {});  // of a service in this process, as all are then
}

// Tells every service but one in the process `changer`, which learns of it from the answer to its order. Gives the
// scenario as it was.
Json Supervisor::become(Json scenario, pid_t changer, const Done& done) {
  Json before = std::exchange(m_scenario, std::move(scenario));
  ++m_revision;
  const Json now = news();
  for (const auto& runner : m_runners) {
    if (runner->pid() != changer) runner->update(before, now, done);
  }
  for (const auto& runner : m_runners) {
    const ServiceType& type = runner->type();
    if (before.at(type.id).value(kFlap, Json()) != m_scenario.at(type.id).value(kFlap, Json())) armFlap(type);
  }
  return before;
}

bool Supervisor::isAlive(const ServiceType& type) const {
  return m_scenario.at(type.id).at(kAlive);
}

void Supervisor::decree(const ServiceType& type, bool alive) {
  Json scenario = m_scenario;
  liveFromNowOn(scenario.at(type.id), alive);
  become(std::move(scenario), 0, [](const std::string&) {});
}

// Starts and kills those that a change has made alive or dead.
void Supervisor::live(const Json& before, const Done& done) {
  for (const auto& each : m_runners) {
    Runner& runner = *each;
    const bool alive = isAlive(runner.type());
    if (before.at(runner.type().id).at(kAlive) == alive) continue;
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

void Supervisor::armFlap(const ServiceType& type) {
  m_flaps.erase(&type);
  const auto interval = flapInterval(m_scenario.at(type.id));
  if (!interval) return;
  m_flaps[&type] = std::make_unique<Timer>(vesk_service_event(runtime()), *interval, [this, &type] { flap(type); });
}

void Supervisor::flap(const ServiceType& type) {
  Json scenario = m_scenario;
  flapOnce(scenario.at(type.id));
  const Json before = become(std::move(scenario), 0, [](const std::string&) {});
  m_flaps.erase(&type);  // until the service has died or come back, which may take longer than half a period
  live(before, gather([this, &type](const std::string& error) {
         if (!error.empty()) std::cerr << "orvel-sim: " << error << std::endl;
         armFlap(type);
       }));
}

Json Supervisor::replayed(const ServiceType& type, const Call& call) {
  return m_replay ? m_replay->answerTo(type, call) : Json();
}

void Supervisor::record(Json entry) {
  entry["number"] = ++m_entries;
  m_recorders.record(entry);
  shortenEntry(entry);
  m_traffic.push_back(std::move(entry));
  if (m_traffic.size() > kEntriesKept) m_traffic.pop_front();
  const auto listeners = std::exchange(m_listeners, {});
  for (const Listener& listener : listeners) listener.order.answer(trafficAfter(listener.order));
}

int Supervisor::onCall(unsigned, vesk_identity* caller, vesk_buffer* request, vesk_payload*) {
  const pid_t pid = vesk_identity_pid(caller);
  vesk_deferred* deferred = vesk_request_defer(caller);
  if (deferred == nullptr) return -ENOMEM;
  const Answer answer = [owed = std::make_shared<Owed>(deferred)](const Json& message) {
    if (owed->call == nullptr) return;
    const PayloadPtr reply(vesk_payload_alloc());
    if (reply) writeMessage(reply.get(), message);
    owed->give(reply ? 0 : -ENOMEM, reply.get());
  };
  try {
    obey({readMessage(request), pid, request, answer});
  } catch (const std::exception& error) {
    answer(failure(error.what()));
  }
  return 0;
}

void Supervisor::obey(const Order& order) {
  static const std::map<std::string, void (Supervisor::*)(const Order&)> orders = {
      {"services", &Supervisor::listServices},
      {"scenario", &Supervisor::showScenario},
      {"change", &Supervisor::takeChange},
      {"kill", &Supervisor::killService},
      {"restart", &Supervisor::restartService},
      {"traffic", &Supervisor::showTraffic},
      {"attach", &Supervisor::attachService},
      {"ready", &Supervisor::serviceReady},
      {"record", &Supervisor::takeEntries},
      {"event", &Supervisor::passEvent},
      {"startRecording", &Supervisor::startRecording},
      {"fetchRecorded", &Supervisor::fetchRecorded},
  };
  const auto found = orders.find(order.text.at("order"));
  if (found == orders.end()) throw std::runtime_error("no such order: " + order.text.dump());
  (this->*found->second)(order);
}

void Supervisor::listServices(const Order& order) {
  Json services = Json::array();
  for (const auto& runner : m_runners) {
    const ServiceType& type = runner->type();
    services.push_back({{"service", type.id}, {"name", type.name}, {"pid", runner->pid()}, {"about", type.summary}});
  }
  order.answer({{"services", services}});
}

void Supervisor::showScenario(const Order& order) {
  order.answer({{"scenario", m_scenario}});
}

void Supervisor::takeChange(const Order& order) {
  Json scenario = changed(m_scenario, order.text.at("change"));  // a refusal goes out before anything can answer
  const Done done = gather([answer = order.answer](const std::string& error) {
    answer(error.empty() ? Json::object() : failure(error));  // unless it was given before
  });
  const Json before = become(std::move(scenario), order.caller, done);
  live(before, done);
  // A service does not wait for the others: two that change something at once would wait for each other.
  const auto isCaller = [&](const auto& runner) { return runner->pid() == order.caller; };
  if (std::any_of(m_runners.begin(), m_runners.end(), isCaller)) order.answer(news());
}

void Supervisor::killService(const Order& order) {
  Runner& runner = runnerOf(order);
  const bool flaps = m_scenario.at(runner.type().id).contains(kFlap);
  if (runner.pid() == 0 && !flaps) throw std::runtime_error(runner.type().id + " is dead already");
  decree(runner.type(), false);
  if (runner.pid() == 0) return order.answer(Json::object());
  runner.kill([answer = order.answer](const std::string&) { answer(Json::object()); });
}

void Supervisor::restartService(const Order& order) {
  Runner& runner = runnerOf(order);
  decree(runner.type(), true);
  const auto start = [&runner, answer = order.answer](const std::string&) {
    if (runner.pid() != 0) return answer(failure(runner.type().id + " was started meanwhile"));
    runner.start([answer](const std::string& error) { answer(error.empty() ? Json::object() : failure(error)); });
  };
  if (runner.pid() == 0) {
    start({});
  } else {
    runner.kill(start);
  }
}

void Supervisor::passEvent(const Order& order) {
  tell(order.text.at("service"), order.text.at("event"), order.answer);
}

void Supervisor::tell(const std::string& service, const Json& event, const Answer& answer) {
  Runner& runner = runnerOf(service);
  if (runner.pid() == 0) throw std::runtime_error(service + " is dead");
  runner.event(event, answer);
}

void Supervisor::showTraffic(const Order& order) {
  const bool wait = order.text.at("wait");
  if (!wait || order.text.at("after").get<std::uint64_t>() < m_entries) {
    return order.answer(trafficAfter(order));
  }
  const auto listener = m_listeners.insert(m_listeners.end(), {order, nullptr});
  const auto giveUp = [this, listener] {
    listener->order.answer(trafficAfter(listener->order));
    m_listeners.erase(listener);
  };
  listener->patience = std::make_unique<Timer>(vesk_service_event(runtime()), kListenerPatience, giveUp);
}

void Supervisor::attachService(const Order& order) {
  childWith(order.caller).attached(RequestReader(order.request).endpoint());
  order.answer(news());
}

void Supervisor::serviceReady(const Order& order) {
  order.answer(Json::object());
  childWith(order.caller).ready();
}

void Supervisor::takeEntries(const Order& order) {
  std::string& text = m_pieces[order.caller];
  text += order.text.at("piece").get_ref<const std::string&>();
  if (order.text.at("last")) {
    const Json entries = parseMessage(text);
    m_pieces.erase(order.caller);
    for (const Json& entry : entries) record(entry);
  }
  order.answer(Json::object());
}

void Supervisor::startRecording(const Order& order) {
  const bool first = m_recorders.empty();
  m_recorders.add(RequestReader(order.request).endpoint());
  const std::uint64_t after = m_entries - std::min(m_entries, order.text.at("last").get<std::uint64_t>());
  for (const Json& entry : m_traffic) {
    if (entry.at("number") > after) m_recorders.recordFor(order.caller, entry);
  }
  const Done done = gather([answer = order.answer, after](const std::string& error) {
    answer(error.empty() ? Json{{"after", after}} : failure(error));
  });
  if (first) become(m_scenario, 0, done);
}

void Supervisor::fetchRecorded(const Order& order) {
  m_recorders.fetch(order.caller, order.text.at("wait"), order.answer);
}

Runner& Supervisor::runnerOf(const Order& order) {
  return runnerOf(order.text.at("service").get_ref<const std::string&>());
}

Runner& Supervisor::runnerOf(const std::string& service) {
  const ServiceType& type = serviceCalled(service);
  const auto runs = [&](const auto& runner) { return &runner->type() == &type; };
  return **std::find_if(m_runners.begin(), m_runners.end(), runs);
}

ChildRunner& Supervisor::childWith(pid_t pid) {
  for (const auto& runner : m_runners) {
    auto* child = dynamic_cast<ChildRunner*>(runner.get());
    if (child != nullptr && child->pid() == pid) return *child;
  }
  throw std::runtime_error("process " + std::to_string(pid) + " runs no service of this device");
}

// The entries that follow number "after", as many as fit into an answer.
Json Supervisor::trafficAfter(const Order& order) const {
  const auto after = order.text.at("after").get<std::uint64_t>();
  Json entries = Json::array();
  for (const Json& entry : m_traffic) {
    if (entries.size() == kEntriesAtOnce) break;
    if (entry.at("number") > after) entries.push_back(entry);
  }
  return {{"entries", entries}, {"newest", m_entries}};
}

Json Supervisor::news() const {
  return {{"revision", m_revision}, {"scenario", m_scenario}, {"recording", !m_recorders.empty()}};
}

}  // namespace orvel::sim
