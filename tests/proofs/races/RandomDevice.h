// A device on the fake libvesk that works, breaks and comes back at random.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "support/ClientFixture.h"

namespace orvel::races {

class RandomDevice : public test::FakeServices {
 public:
  explicit RandomDevice(std::uint64_t seed) : m_random(seed) { start_services(); }
  ~RandomDevice() override { stop(); }

  // A service that answers well most of the time.
  void serve(const std::string& service) override;

  // Has a thread of its own send notifications, kill and start services, hold calls and binds, until stop().
  void start_acting();
  // Ends that and lets everything go that is held.
  void stop();

  long kills() const { return m_kills; }

  // From now on the device's name is a wrong one.
  void plant_fault() { m_wrong = true; }

 private:
  std::uint64_t draw();
  const char* any_service() { return test::kServices.at(draw() % test::kServiceCount); }
  test::Reply reply(const test::Transaction& call);
  void act();
  void notify();

  std::mutex m_mutex;  // guards the rest down to m_stopped
  std::mt19937_64 m_random;
  std::array<test::Transaction, 64> m_registrations;  // the last calls with an endpoint, whose end FakeVesk knows
  std::size_t m_registered = 0;
  std::condition_variable m_changed;
  bool m_stopped = true;

  std::atomic<bool> m_wrong{false};
  std::atomic<long> m_kills{0};
  std::string m_held_calls;  // the acting thread's
  std::string m_held_binds;
  std::thread m_actor;  // Last: uses the rest.
};

}  // namespace orvel::races
