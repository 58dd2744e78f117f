// The device that lives in the test's process.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "DeviceTransport.h"
#include "VirtualTime.h"
#include "device/Device.h"
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
class TestDevice::LocalDevice : private DeviceParts, public sim::Device {
 public:
  // Test's thread, like perform() and the destructor. Throws std::logic_error while there is another one.
  explicit LocalDevice(sim::Json scenario);
  ~LocalDevice() override;
  LocalDevice(const LocalDevice&) = delete;
  LocalDevice& operator=(const LocalDevice&) = delete;

  // What `task` returns on the device's thread; throws std::invalid_argument for what it throws. Any other thread.
  template <typename Task>
  auto perform(Task task) -> decltype(task()) {
    // Shared: the thread that waits may be gone before the device's thread has left it.
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

  // The result of a method of the device's, on the device's thread.
  template <typename Method, typename... Arguments>
  auto on_device(Method method, const Arguments&... arguments) {
    return perform([&] { return std::invoke(method, *this, arguments...); });
  }
  // Makes the change that `make` works out, on the device's thread.
  template <typename Make, typename... Arguments>
  void change_to(Make make, const Arguments&... arguments) {
    perform([&] { change(make(arguments...)); });
  }

  VirtualTime& time() { return m_time; }
  [[nodiscard]] VirtualTime::Duration elapsed() const { return m_time.now() - m_start; }

  // Any thread.
  void actAt(VirtualTime::Duration elapsed, VirtualTime::Task act) {
    m_time.add_act(m_start + elapsed, std::move(act));
  }

  void record(sim::Json entry) override;
  void recordSoon(sim::Json entry) override { record(std::move(entry)); }
  sim::Json moment() override;

  const std::vector<sim::Json>& traffic() const { return m_traffic; }
  // The text of what the client's callback threw at a notification, as far as it has run.
  std::optional<std::string> thrownAt(const sim::Json& notification) const;
  std::vector<std::string> publishedNames() const { return vesk.published(); }

  // The answer of the service called so.
  sim::Json notify(const char* service, const sim::Json& event);
  // Another process takes the namespace, and ends.
  void holdNamespace(const std::string& nspace);
  void releaseNamespace(const std::string& nspace);
  // Kills or restarts the service called so.
  void apply(void (sim::Device::*act)(const sim::ServiceType&, const sim::Done&), const std::string& service);

 private:
  VirtualTime& m_time = VirtualTime::instance();
  const VirtualTime::TimePoint m_start = m_time.now();
  std::vector<sim::Json> m_traffic;
  std::set<std::string> m_foreign;  // the namespaces that another process has
  std::uint64_t m_sequence = 0;     // of the last call or notification
  std::thread m_thread;
};

}  // namespace orvel::testing
