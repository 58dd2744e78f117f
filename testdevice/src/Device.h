// The host of the services in the test's process.
#pragma once

#include <cstdint>
#include <exception>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "DeviceTransport.h"
#include "VirtualTime.h"
#include "device/Service.h"
#include "orvel/testing/TestDevice.h"
#include "vesk/inprocess/InprocessVesk.h"

namespace orvel::testing {

// The one place that a process has for a device.
class DevicePlace {
 public:
  DevicePlace();  // throws std::logic_error where it is taken
  ~DevicePlace();
  DevicePlace(const DevicePlace&) = delete;
  DevicePlace& operator=(const DevicePlace&) = delete;
};

// Comes before the host that has its runtime. The place is left last, when nothing of the device is there any more.
struct DeviceParts {
  DevicePlace place;
  vesk::inprocess::InprocessVesk vesk;
  DeviceTransport device{vesk};
};

// What is not said to run on the test's thread runs on the device's.
class TestDevice::Device : private DeviceParts, public sim::Host {
 public:
  // Test's thread, like perform() and the destructor. Throws std::logic_error while there is another one.
  explicit Device(sim::Json scenario);
  ~Device() override;
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // Runs `task` on the device's thread and gives what it gives. Any other thread.
  template <typename Task>
  auto perform(Task task) -> decltype(task()) {
    // Shared: the one who waits may be gone before the one who answers has left it.
    const auto done = std::make_shared<std::promise<decltype(task())>>();
    m_time.post([&task, done] {
      try {
        if constexpr (std::is_void_v<decltype(task())>) {
          task();
          done->set_value();
        } else {
          done->set_value(task());
        }
      } catch (...) {
        done->set_exception(std::current_exception());
      }
    });
    try {
      return done->get_future().get();
    } catch (const std::exception& refused) {
      throw std::invalid_argument(refused.what());
    }
  }

  VirtualTime& time() { return m_time; }
  [[nodiscard]] VirtualTime::Duration elapsed() const { return m_time.now() - m_start; }

  const sim::Json& scenario() const override { return m_scenario; }
  void change(const sim::Json& change) override;
  void record(sim::Json entry) override;
  void recordSoon(sim::Json entry) override { record(std::move(entry)); }
  sim::Json moment() override;

  const std::vector<sim::Json>& traffic() const { return m_traffic; }
  // The text of what the client's callback threw at a notification, as far as it has run.
  std::optional<std::string> thrownAt(const sim::Json& notification) const;
  std::vector<std::string> publishedNames() const { return vesk.published(); }

  sim::Json tell(const char* id, const sim::Json& event);
  void kill(const sim::ServiceType& type);
  void restart(const sim::ServiceType& type);

 private:
  bool isAlive(const sim::ServiceType& type) const { return m_scenario.at(type.id).at(sim::kAlive); }
  void decree(const sim::ServiceType& type, bool alive);
  void become(sim::Json scenario);
  void start(const sim::ServiceType& type);
  void armFlap(const sim::ServiceType& type);
  void flap(const sim::ServiceType& type);

  VirtualTime& m_time = VirtualTime::instance();
  const VirtualTime::TimePoint m_start = m_time.now();
  sim::Json m_scenario;
  std::vector<sim::Json> m_traffic;
  std::uint64_t m_sequence = 0;                                                 // of the last call or notification
  std::map<const sim::ServiceType*, std::unique_ptr<sim::Service>> m_services;  // those that live
  std::map<const sim::ServiceType*, VirtualTime::TimerId> m_flaps;
  std::thread m_thread;
};

}  // namespace orvel::testing
