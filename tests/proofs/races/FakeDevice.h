// A device on InprocessVesk that works, breaks and comes back at random.
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

#include "support/Vesk.h"

namespace orvel::races {

// All eight services of the client.
class FakeDevice {
 public:
  explicit FakeDevice(std::uint64_t seed) : m_random(seed) {}
  ~FakeDevice() { stop(); }
  FakeDevice(const FakeDevice&) = delete;
  FakeDevice& operator=(const FakeDevice&) = delete;

  // Makes every service run, or one of them.
  void serve();
  void serve(const std::string& service);

  // Has a thread of its own send notifications, kill and start services, hold calls and binds, until stop().
  void start_acting();
  // Ends that and lets everything go that is held.
  void stop();

  long kills() const { return m_kills; }

  test::InprocessVesk& vesk() { return m_vesk; }

 private:
  struct Sent {
    std::string service;
    unsigned code = 0;
    vesk_endpoint* endpoint = nullptr;  // known to be alive by InprocessVesk alone
  };

  std::uint64_t draw();
  const char* any_service();
  test::Reply answer(const test::Transaction& call);
  void act();
  void notify();

  test::InprocessVesk m_vesk;
  std::mutex m_mutex;  // guards the rest down to the thread
  std::mt19937_64 m_random;
  std::array<Sent, 64> m_sent{};  // the last ones
  std::size_t m_sents = 0;
  std::condition_variable m_changed;
  bool m_stopped = true;

  std::string m_held_calls;  // the acting thread's
  std::string m_held_binds;
  std::atomic<long> m_kills{0};
  std::thread m_actor;
};

}  // namespace orvel::races
