#include "Device.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include "Records.h"
#include "device/Acts.h"
#include "device/Scenario.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::testing {
namespace {

using sim::Json;
using sim::ServiceType;

std::atomic<bool> g_place_taken{false};

// Without a device there is nothing for a client to initialise, as on a workstation. Kept for good.
bool takeDeviceAway() {
  static auto& none = *new vesk::inprocess::InprocessVesk;
  none.fail_always("vesk_get_runtime", 1, -ENOENT);
  return true;
}
[[maybe_unused]] const bool g_no_device_yet = takeDeviceAway();

}  // namespace

DevicePlace::DevicePlace() {
  if (g_place_taken.exchange(true)) {
    throw std::logic_error(
        "TestDevice: there is another one in this process, and there can be one at a time; destroy it first");
  }
}

DevicePlace::~DevicePlace() {
  takeDeviceAway();
  g_place_taken = false;
}

TestDevice::Device::Device(Json scenario)
    : Host(DeviceParts::device.runtime()), m_scenario(std::move(scenario)), m_thread([this] { m_time.run_device(); }) {
  perform([this] {
    for (const ServiceType* type : sim::allServices()) {
      if (isAlive(*type)) start(*type);
      armFlap(*type);
    }
  });
}

TestDevice::Device::~Device() {
  service_apis::OrvelDelegateClient::getClient().shutdown();
  perform([this] {
    for (const auto& [type, timer] : m_flaps) m_time.stop_timer(timer);
    m_services.clear();
    deliveries().stop();
  });
  m_time.stop_device();
  m_thread.join();
}

void TestDevice::Device::change(const Json& change) {
  become(sim::changed(m_scenario, change));
}

void TestDevice::Device::record(Json entry) {
  // Of what was delivered, what the client's callback threw shows later, or as this error.
  const bool delivered = !entry.contains("error") || entry.at("error") == -EIO;
  if (entry.contains("notification") && delivered) entry[kMessage] = device.current_message();
  m_traffic.push_back(std::move(entry));
}

Json TestDevice::Device::moment() {
  return {{kTime, elapsed().count()}, {kSequence, ++m_sequence}};
}

std::optional<std::string> TestDevice::Device::thrownAt(const Json& notification) const {
  const auto message = notification.find(kMessage);
  return message == notification.end() ? std::nullopt : device.thrown_at(message->get<std::uint64_t>());
}

Json TestDevice::Device::tell(const char* id, const Json& event) {
  const ServiceType& type = sim::serviceCalled(id);
  const auto service = m_services.find(&type);
  if (service == m_services.end()) throw std::runtime_error(type.id + " is dead");
  return service->second->event(event);
}

void TestDevice::Device::kill(const ServiceType& type) {
  if (m_services.count(&type) == 0 && !m_scenario.at(type.id).contains(sim::kFlap)) {
    throw std::runtime_error(type.id + " is dead already");
  }
  decree(type, false);
}

void TestDevice::Device::restart(const ServiceType& type) {
  if (isAlive(type)) decree(type, false);
  decree(type, true);
}

void TestDevice::Device::decree(const ServiceType& type, bool alive) {
  Json scenario = m_scenario;
  sim::liveFromNowOn(scenario.at(type.id), alive);
  become(std::move(scenario));
}

void TestDevice::Device::become(Json scenario) {
  const Json before = std::exchange(m_scenario, std::move(scenario));
  for (const auto& [type, service] : m_services) service->changed(before);
  for (const ServiceType* type : sim::allServices()) {
    const Json& was = before.at(type->id);
    const Json& is = m_scenario.at(type->id);
    if (was.value(sim::kFlap, Json()) != is.value(sim::kFlap, Json())) armFlap(*type);
    if (was.at(sim::kAlive) == is.at(sim::kAlive)) continue;
    if (isAlive(*type)) {
      start(*type);
    } else {
      m_services.erase(type);
    }
  }
}

void TestDevice::Device::start(const ServiceType& type) {
  auto service = type.make(type, *this);
  service->publish();
  m_services[&type] = std::move(service);
}

void TestDevice::Device::armFlap(const ServiceType& type) {
  if (const auto armed = m_flaps.extract(&type)) m_time.stop_timer(armed.mapped());
  const Json& section = m_scenario.at(type.id);
  const auto interval = sim::flapInterval(section);
  if (!interval) return;
  const bool endless = !section.at(sim::kFlap).contains("count");
  m_flaps[&type] = m_time.start_timer(
      *interval, [this, &type] { flap(type); }, endless);
}

void TestDevice::Device::flap(const ServiceType& type) {
  Json scenario = m_scenario;
  sim::flapOnce(scenario.at(type.id));
  become(std::move(scenario));
  armFlap(type);
}

}  // namespace orvel::testing
