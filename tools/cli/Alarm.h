// What happens when something takes too long.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace orvel::cli {

// Calls a function once, on a thread of its own, when the time is over; never where it is destroyed before that.
class Alarm {
 public:
  Alarm(std::chrono::duration<double> time, std::function<void()> ring) : m_ring(std::move(ring)) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
    m_thread = std::thread([this, end] {
      std::unique_lock<std::mutex> lock(m_mutex);
      if (!m_ended.wait_until(lock, end, [this] { return m_over; })) m_ring();
    });
  }
  ~Alarm() {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_over = true;
    }
    m_ended.notify_one();
    m_thread.join();
  }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

 private:
  const std::function<void()> m_ring;
  std::mutex m_mutex;
  std::condition_variable m_ended;
  bool m_over = false;  // guarded by m_mutex
  std::thread m_thread;
};

}  // namespace orvel::cli
