// The process of one isolated service.
#pragma once

#include <cstdint>
#include <memory>

#include "device/CurrentScenario.h"
#include "device/Service.h"
#include "tools/orvel-sim/host/Control.h"

namespace orvel::sim {

// The verb of the program that is such a process.
constexpr char kServeAlone[] = "serve-alone";

// A service and its host, which has a copy of the scenario: the supervisor sends the changes. Run-loop thread.
class IsolatedService : public Host, private Endpoint {
 public:
  // Throws as Control does.
  IsolatedService(void* runtime, const ServiceType& type);

  // Until the run loop ends. Throws std::system_error, and as Control does.
  void serve();

  // In the run loop, which ends.
  void stop();

  const Json& scenario() const override { return m_scenario->json(); }
  void change(const Json& change) override;
  void record(Json entry) override;
  void recordSoon(Json entry) override;
  Json connections(const ServiceType& type) override;

 private:
  int onCall(unsigned code, vesk_identity* caller, vesk_buffer* request, vesk_payload* reply) override;
  Json answerTo(const Json& event);
  void learn(const Json& updates);
  void learnAll();
  void apply(std::uint64_t revision, const Json& edits);
  void keep(Json entry);
  void handInEntries();

  Control m_control;
  std::uint64_t m_revision = 0;
  bool m_recording = false;
  std::unique_ptr<CurrentScenario> m_scenario;
  Json m_entries = Json::array();  // that the supervisor has not got yet
  std::unique_ptr<Timer> m_soon;   // set while they wait
  std::unique_ptr<Service> m_service;
};

}  // namespace orvel::sim
