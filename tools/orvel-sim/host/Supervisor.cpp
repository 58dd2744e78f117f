#include "tools/orvel-sim/host/Supervisor.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <utility>

#include "device/Recording.h"
#include "device/Status.h"
#include "device/Traffic.h"
#include "device/services/Services.h"
#include "tools/orvel-sim/host/Connections.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/host/Namespaces.h"

namespace orvel::sim {
namespace {

constexpr std::size_t kEntriesKept = 1000;
// How long a program that waits for traffic gets no answer; below vesk's call limit.
// It may ask for less by "patienceMs".
constexpr std::chrono::milliseconds kListenerPatience(10'000);

// Holds a call that is owed an answer, and fails it where none was given.
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

Device::MakeRunner childOf(sd_event* event) {
  return [event](const ServiceType& type) { return std::make_unique<ChildRunner>(type, event); };
}

// What was refused before it began is answered by handle's caller.
template <typename Message>
Done answered(const Message& message) {
  return
      [answer = message.answer](const std::string& error) { answer(error.empty() ? Json::object() : failure(error)); };
}

}  // namespace

Supervisor::Supervisor(void* runtime, Json scenario, bool isolate)
    : Device(runtime, std::move(scenario), isolate ? childOf(vesk_service_event(runtime)) : nullptr) {
  for (const auto& runner : runners()) {
    runner->onLife([this, &life = *runner](bool alive) {
      Json line = recordingGap(m_entries, 0);
      line[kLife] = recordedLife(life.type().id, alive, life.pid());
      m_recordingClients.record(line);
    });
  }
  if (!isolate) return;
  for (const auto& runner : runners()) m_children.push_back(static_cast<ChildRunner*>(runner.get()));
}

void Supervisor::start(const Done& done) {
  check(vesk_service_register(runtime(), kControlName, Endpoint::get()), kControlName);
  const Done gathered = gather(done);  // which is called after the replay has started too
  Device::start(gathered);
  if (!m_replay) return;
  m_replay->start(*this, [this](const Json& directive) { event(coordinatorService(), directive, [](const Json&) {}); });
}

void Supervisor::stop() {
  m_listeners.clear();
  m_recordingClients.stop();
  if (m_replay) m_replay->stop();
  Device::stop();
}

Json Supervisor::replayed(const ServiceType& type, const Call& call) {
  return m_replay ? m_replay->answerTo(type, call) : Json();
}

Json Supervisor::connections(const ServiceType& type) {
  return connectionsOf(runtime(), type);
}

void Supervisor::record(Json entry) {
  entry["number"] = ++m_entries;
  countStrikes(entry);
  m_recordingClients.record(entry);
  shortenEntry(entry);
  m_traffic.push_back(std::move(entry));
  if (m_traffic.size() > kEntriesKept) m_traffic.pop_front();
  if (m_watcher) m_watcher();
  const auto listeners = std::exchange(m_listeners, {});
  for (const Listener& listener : listeners) listener.message.answer(trafficAfter(listener.message));
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
    handle({readMessage(request), pid, request, answer});
  } catch (const std::exception& error) {
    answer(failure(error.what()));
  }
  return 0;
}

void Supervisor::handle(const ControlMessage& message) {
  static const std::map<std::string, void (Supervisor::*)(const ControlMessage&)> handlers = {
      {"services", &Supervisor::listServices},
      {"status", &Supervisor::showStatus},
      {"reset", &Supervisor::resetServices},
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
  const auto found = handlers.find(message.body.at("order"));
  if (found == handlers.end()) throw std::runtime_error("no such order: " + message.body.dump());
  (this->*found->second)(message);
}

void Supervisor::listServices(const ControlMessage& message) {
  Json services = Json::array();
  for (const auto& runner : runners()) {
    const ServiceType& type = runner->type();
    services.push_back({{"service", type.id}, {"name", type.name}, {"pid", runner->pid()}, {"about", type.summary}});
    if (isLeftOut(type)) services.back().update({{"pid", serverOfName(type.name)}, {"without", true}});
  }
  message.answer({{"services", services}});
}

void Supervisor::showStatus(const ControlMessage& message) {
  wholeStatus(message.answer);
}

void Supervisor::wholeStatus(const Answer& answer) {
  status([this, answer](Json status) {
    addNamespaces(status, heldNamespaces());
    for (Json& service : status.at("services")) {
      if (service.contains("without")) service["pid"] = serverOfName(service.at("name"));
    }
    status["directory"] = vesk_runtime_directory();
    status["pid"] = getpid();
    status["sinceMs"] = m_started;
    status["traffic"] = m_entries;
    answer(status);
  });
}

void Supervisor::resetServices(const ControlMessage& message) {
  const auto only = message.body.find("service");
  const ServiceType* const type = only == message.body.end() ? nullptr : &serviceCalled(*only);
  reset(type, message.body.value("contents", false), message.answer);
}

void Supervisor::showScenario(const ControlMessage& message) {
  message.answer({{"revision", revision()}, {"scenario", scenario()}});
}

// A service does not wait for the others: two that change something at once would wait for each other.
void Supervisor::takeChange(const ControlMessage& message) {
  const auto isCaller = [&](const ChildRunner* child) { return child->pid() == message.caller; };
  const auto caller = std::find_if(m_children.begin(), m_children.end(), isCaller);
  const Json& wanted = message.body.at("change");
  if (caller != m_children.end()) {
    message.answer((*caller)->learntFrom(change(
        wanted, [](const std::string&) {}, *caller)));
  } else {
    change(wanted, answered(message), nullptr);
  }
}

void Supervisor::killService(const ControlMessage& message) {
  kill(serviceCalled(message.body.at("service")), answered(message));
}

void Supervisor::restartService(const ControlMessage& message) {
  restart(serviceCalled(message.body.at("service")), answered(message));
}

void Supervisor::passEvent(const ControlMessage& message) {
  event(serviceCalled(message.body.at("service")), message.body.at("event"), message.answer);
}

void Supervisor::showTraffic(const ControlMessage& message) {
  const bool wait = message.body.at("wait");
  if (!wait || message.body.at("after").get<std::uint64_t>() < m_entries) {
    return message.answer(trafficAfter(message));
  }
  const std::chrono::milliseconds patience(message.body.value("patienceMs", kListenerPatience.count()));
  const auto listener = m_listeners.insert(m_listeners.end(), {message, nullptr});
  const auto giveUp = [this, listener] {
    listener->message.answer(trafficAfter(listener->message));
    m_listeners.erase(listener);
  };
  listener->patience = std::make_unique<Timer>(runtime(), patience, giveUp);
}

void Supervisor::attachService(const ControlMessage& message) {
  childWith(message.caller).attached(RequestReader(message.request).endpoint());
  forgetPieces(message.caller);
  message.answer({{"revision", revision()}, {"scenario", scenario()}, {"recording", !m_recordingClients.empty()}});
}

void Supervisor::serviceReady(const ControlMessage& message) {
  message.answer(Json::object());
  childWith(message.caller).ready();
}

void Supervisor::takeEntries(const ControlMessage& message) {
  std::string& text = m_pieces[message.caller];
  text += message.body.at("piece").get_ref<const std::string&>();
  if (message.body.at("last")) {
    const Json entries = parseMessage(text);
    m_pieces.erase(message.caller);
    for (const Json& entry : entries) record(entry);
  }
  message.answer(Json::object());
}

// Of a process that has just started, and of those that have ended in the middle of handing in: another process may get
// the number of one.
void Supervisor::forgetPieces(pid_t fresh) {
  for (auto piece = m_pieces.begin(); piece != m_pieces.end();) {
    const auto isIt = [&](const ChildRunner* child) { return child->pid() == piece->first; };
    const bool lives = piece->first != fresh && std::any_of(m_children.begin(), m_children.end(), isIt);
    piece = lives ? std::next(piece) : m_pieces.erase(piece);
  }
}

void Supervisor::startRecording(const ControlMessage& message) {
  const bool first = m_recordingClients.empty();
  m_recordingClients.add(RequestReader(message.request).endpoint());
  const std::uint64_t after = m_entries - std::min(m_entries, message.body.at("last").get<std::uint64_t>());
  for (const Json& entry : m_traffic) {
    if (entry.at("number") > after) m_recordingClients.recordFor(message.caller, entry);
  }
  const Done done = gather([answer = message.answer, after, newest = m_entries](const std::string& error) {
    answer(error.empty() ? Json{{"after", after}, {"newest", newest}} : failure(error));
  });
  if (first) setRecording(true, done);
}

void Supervisor::fetchRecorded(const ControlMessage& message) {
  m_recordingClients.fetch(message.caller, message.body.at("wait"), message.answer);
}

ChildRunner& Supervisor::childWith(pid_t pid) {
  for (ChildRunner* child : m_children) {
    if (child->pid() == pid) return *child;
  }
  throw std::runtime_error("process " + std::to_string(pid) + " runs no service of this device");
}

void Supervisor::setRecording(bool recorded, const Done& done) {
  for (ChildRunner* child : m_children) child->recording(recorded, done);
}

// The entries that follow number "after", as many as fit into an answer.
Json Supervisor::trafficAfter(const ControlMessage& message) const {
  const std::uint64_t after = std::min(message.body.at("after").get<std::uint64_t>(), m_entries);
  Json entries = Json::array();
  const std::uint64_t left = m_entries - after;  // the newest are kept
  for (std::size_t at = m_traffic.size() - std::min<std::uint64_t>(left, m_traffic.size());
       at < m_traffic.size() && entries.size() < kEntriesAtOnce; ++at) {
    entries.push_back(m_traffic[at]);
  }
  return {{"entries", entries}, {"newest", m_entries}};
}

}  // namespace orvel::sim
