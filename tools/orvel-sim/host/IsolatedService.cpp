#include "tools/orvel-sim/host/IsolatedService.h"

#include <chrono>
#include <string>
#include <utility>

#include "device/Runner.h"
#include "device/Traffic.h"
#include "tools/orvel-sim/host/Connections.h"

namespace orvel::sim {
namespace {

// How long entries of the traffic may wait for others to go with.
constexpr std::chrono::milliseconds kSoon(5);

}  // namespace

IsolatedService::IsolatedService(void* runtime, const ServiceType& type) : Host(runtime), m_control(runtime) {
  const Json device = m_control.send({{"order", "attach"}}, Endpoint::get());
  m_revision = device.at("revision");
  m_recording = device.at("recording");
  m_scenario = std::make_unique<CurrentScenario>(device.at("scenario"));
  m_service = type.make(type, *this);
}

void IsolatedService::serve() {
  m_service->publish();
  m_control.send({{"order", "ready"}});
  vesk_run_loop(runtime());
}

void IsolatedService::stop() {
  m_service.reset();
  deliveries().stop();
  vesk_shutdown(runtime());
}

void IsolatedService::change(const Json& change) {
  learn(m_control.send({{"order", "change"}, {"change", change}}).at("updates"));
}

Json IsolatedService::connections(const ServiceType& type) {
  return connectionsOf(runtime(), type);
}

void IsolatedService::record(Json entry) {
  keep(std::move(entry));
  handInEntries();
}

// A round trip for each of thousands of deliveries would take seconds.
void IsolatedService::recordSoon(Json entry) {
  keep(std::move(entry));
  if (m_entries.size() == kEntriesAtOnce) return handInEntries();
  if (!m_soon) m_soon = std::make_unique<Timer>(runtime(), kSoon, [this] { handInEntries(); });
}

int IsolatedService::onCall(unsigned, vesk_identity*, vesk_buffer* request, vesk_payload* reply) {
  const Json message = readMessage(request);
  Json answer;
  if (const auto event = message.find("event"); event != message.end()) {
    answer = answerTo(*event);
  } else if (const auto recording = message.find("recording"); recording != message.end()) {
    m_recording = *recording;
  } else if (message.contains("clients")) {
    answer = m_service->clients();
  } else {
    learn(message.at("updates"));
  }
  if (!m_entries.empty()) handInEntries();  // the client that caused this finds what it did in the traffic
  writeMessage(reply, answer);
  return 0;
}

Json IsolatedService::answerTo(const Json& event) {
  try {
    return m_service->event(event);
  } catch (const std::exception& error) {
    return failure(error.what());
  }
}

// Updates that were on their way came with the answer to a change of this process's own already. One is missing only
// where the supervisor could not send it.
void IsolatedService::learn(const Json& updates) {
  for (const Json& update : updates) {
    const auto revision = update.at("revision").get<std::uint64_t>();
    if (revision <= m_revision) continue;
    if (revision != m_revision + 1) return learnAll();
    apply(revision, update.at("edits"));
  }
}

void IsolatedService::learnAll() {
  const Json device = m_control.send({{"order", "scenario"}});
  apply(device.at("revision"), editsTo(device.at("scenario")));
}

void IsolatedService::apply(std::uint64_t revision, const Json& edits) {
  m_revision = revision;
  const std::vector<Difference> differences = m_scenario->apply(edits);
  if (m_service) m_service->changed(differences);
}

void IsolatedService::keep(Json entry) {
  if (!m_recording) shortenEntry(entry);
  m_entries.push_back(std::move(entry));
}

void IsolatedService::handInEntries() {
  m_soon.reset();
  const std::string text = std::exchange(m_entries, Json::array()).dump(-1, ' ', false, Json::error_handler_t::replace);
  try {
    for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end) {
      end = pieceEnd(text, begin);
      const bool last = end == text.size();
      m_control.send({{"order", "record"}, {"piece", text.substr(begin, end - begin)}, {"last", last}});
    }
  } catch (const NoDevice&) {
    // The device is ending; its answers may still arrive.
  }
}

}  // namespace orvel::sim
