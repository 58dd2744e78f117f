// A device on the libvesk inside the process that works, breaks and comes back at random.
#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "support/ClientFixture.h"
#include "support/Notifications.h"

namespace orvel::races {

class RandomDevice : public test::FakeServices {
 public:
  explicit RandomDevice(std::uint64_t seed) : m_random(seed) { start_services(); }
  ~RandomDevice() override { stop(); }

  // A service that answers well most of the time.
  void serve(const std::string& service) override {
    m_vesk.add_service(service, [this](const test::Transaction& call) { return reply(call); });
  }

  // Has a thread of its own kill and start services, hold calls and binds, and send notifications, until stop().
  void start_acting() {
    m_acting = true;
    m_actor = std::thread([this] {
      for (; m_acting; std::this_thread::sleep_for(std::chrono::microseconds(200))) act();
    });
  }
  // Ends that and lets everything go that is held.
  void stop() {
    m_acting = false;
    if (m_actor.joinable()) m_actor.join();
    let_go();
  }

  long kills() const { return m_kills; }

  // From now on the device's name is a wrong one.
  void plant_fault() { m_wrong = true; }

 private:
  std::uint64_t draw() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_random();
  }

  void kill(const std::string& service) {
    ++m_kills;
    m_vesk.kill_service(service);
  }

  test::Reply reply(const test::Transaction& call) {
    const auto choice = draw() % 256;
    if (choice == 0) return {test::wire("-1 'no' 0"), 0};
    if (choice == 1) return {{}, -EIO};
    if (choice == 2) return kill(call.service), test::Reply{};
    if (!call.endpoints.empty()) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_subscriptions[m_subscribed++ % m_subscriptions.size()] = call;
    }
    if (m_wrong && call.service == test::kServices[test::kDelegate] && call.code == 33)
      return {test::wire("0 'wrong'"), 0};
    return {test::good_reply(call.service, call.code), 0};
  }

  void let_go() {
    for (const char* service : test::kServices) {
      if (draw() % 2 == 0) m_vesk.expire_calls(service);
      m_vesk.let_calls_go(service);
      m_vesk.complete_binds(service);
    }
  }

  void act() {
    let_go();
    const auto choice = draw() % 32;
    const char* const service = test::kServices.at(draw() % test::kServiceCount);
    if (choice < 4) kill(service);
    if (choice >= 4 && choice < 12) start_services();  // what runs goes on as it was
    if (choice == 12) m_vesk.hold_calls(service);
    if (choice == 13) m_vesk.hold_binds(service);
    if (choice == 14) m_vesk.refuse_binds(service, 2);
    for (int n = 0; n < 4 && choice > 14; ++n) notify();
  }

  void notify() {
    using test::wire;
    const auto choice = draw();
    m_vesk.send("sim_broker_service_N" + std::to_string(choice % 4) + "_vesk_endpoint", 1, wire("'a' 'b'"));
    test::Transaction to;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      to = m_subscriptions[choice % m_subscriptions.size()];
    }
    if (to.endpoints.empty()) return;
    vesk_endpoint* const endpoint = to.endpoints.front();
    if (to.service == test::kServices[test::kConnectivity]) {
      m_vesk.send(endpoint, choice % 2 == 0 ? 1 : 6, {});
    } else if (to.service == test::kServices[test::kEvents]) {
      m_vesk.send(endpoint, 1, test::notification(wire("1 1")));
      if (choice % 4 == 0) m_vesk.release_endpoint(endpoint);
    } else if (to.code == 34) {
      m_vesk.call(endpoint, 1, test::setting("k", choice % 8 == 0 ? "no number" : "7"));
    } else {
      // With an extra of every kind, so that each listener finds its own.
      const char extras[] =
          "'com.quarlo.hux.sso.property.devicename' 0 'Hall' 'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1 "
          "'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 1L 'packageName' 0 'a.b'";
      m_vesk.send(endpoint, 1, test::broadcast("any", "package:a.b", 4, wire(extras)));
    }
  }

  std::mutex m_mutex;  // guards the next three
  std::mt19937_64 m_random;
  std::array<test::Transaction, 64> m_subscriptions;  // the newest, which may have ended since
  std::size_t m_subscribed = 0;

  std::atomic<bool> m_wrong{false};
  std::atomic<long> m_kills{0};
  std::atomic<bool> m_acting{false};
  std::thread m_actor;  // Last: uses the rest.
};

}  // namespace orvel::races
