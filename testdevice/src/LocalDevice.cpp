#include "LocalDevice.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <iostream>
#include <utility>

#include "Records.h"
#include "device/ServiceNames.h"
#include "orvel/OrvelDelegateClient.h"

namespace orvel::testing {
namespace {

using sim::Json;

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

TestDevice::LocalDevice::LocalDevice(Json scenario)
    : Device(DeviceParts::device.runtime(), std::move(scenario)), m_thread([this] { m_time.run_device(); }) {
  perform([this] { start([](const std::string&) {}); });
}

TestDevice::LocalDevice::~LocalDevice() {
  auto& client = service_apis::OrvelDelegateClient::getClient();
  m_time.end_acts();
  client.shutdown();                              // ends what an act waits for
  if (m_time.wait_for_acts()) client.shutdown();  // in case it has initialised the client since
  try {
    if (const std::exception_ptr thrown = m_time.take_thrown()) std::rethrow_exception(thrown);
  } catch (const std::exception& thrown) {
    std::cerr << "TestDevice: an act threw: " << thrown.what() << std::endl;
  } catch (...) {
    std::cerr << "TestDevice: an act threw" << std::endl;
  }
  perform([this] { stop(); });
  m_time.stop_device();
  m_thread.join();
}

void TestDevice::LocalDevice::record(Json entry) {
  countStrikes(entry);
  // Of what was delivered, what the client's callback threw shows later, or as this error.
  const bool delivered = !entry.contains("error") || entry.at("error") == -EIO;
  if (entry.contains("notification") && delivered) entry[kMessage] = device.current_message();
  m_traffic.push_back(std::move(entry));
}

Json TestDevice::LocalDevice::moment() {
  return {{kTime, elapsed().count()}, {kSequence, ++m_sequence}};
}

std::optional<std::string> TestDevice::LocalDevice::thrownAt(const Json& notification) const {
  const auto message = notification.find(kMessage);
  return message == notification.end() ? std::nullopt : device.thrown_at(message->get<std::uint64_t>());
}

Json TestDevice::LocalDevice::notify(const char* service, const Json& event) {
  Json answered;
  Device::event(sim::serviceCalled(service), event, [&](const Json& answer) { answered = answer; });
  return answered;
}

void TestDevice::LocalDevice::holdNamespace(const std::string& nspace) {
  if (nspace.empty()) throw std::invalid_argument("the namespace is empty");
  const std::string name = sim::holderName(nspace);
  const std::vector<std::string> published = publishedNames();
  if (std::find(published.begin(), published.end(), name) != published.end()) {
    throw std::invalid_argument("the client has the namespace " + nspace + " itself");
  }
  if (!m_foreign.insert(nspace).second) throw std::invalid_argument(nspace + " is held already");
  vesk.add_service(name);
}

void TestDevice::LocalDevice::releaseNamespace(const std::string& nspace) {
  if (m_foreign.erase(nspace) == 0) throw std::invalid_argument("no other process has the namespace " + nspace);
  vesk.kill_service(sim::holderName(nspace));
}

void TestDevice::LocalDevice::apply(void (Device::*act)(const sim::ServiceType&, const sim::Done&),
                                    const std::string& service) {
  (this->*act)(sim::serviceCalled(service), [](const std::string&) {});
}

}  // namespace orvel::testing
