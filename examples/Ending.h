// Ctrl-C and SIGTERM for a client. Copy it along with an example.
#pragma once

#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "orvel/OrvelDelegateClient.h"

// From its construction a signal shuts the client down, an initialize() in progress included. Make it after all that
// callbacks use, so that its destructor ends the callbacks first, and before initialize(): threads that start later
// have the signals blocked too, which leaves them to the one that waits for them. In a signal handler shutdown() must
// not be called.
class Ending {
 public:
  Ending() {
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGINT);
    sigaddset(&m_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    m_waiter = std::thread([this] { waitForSignals(); });
  }

  ~Ending() {
    client().shutdown();
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_over = true;
    }
    pthread_kill(m_waiter.native_handle(), SIGTERM);
    m_waiter.join();
  }

  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

  // Whether a signal has come; waits for one for at most so long.
  bool comesWithin(std::chrono::seconds time) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_come.wait_for(lock, time, [this] { return m_signalled; });
  }

  // Until a signal has come.
  void wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_come.wait(lock, [this] { return m_signalled; });
  }

 private:
  static orvel::service_apis::OrvelDelegateClient& client() {
    return orvel::service_apis::OrvelDelegateClient::getClient();
  }

  // At each signal, not only the first: one may come just before initialize(), which then knows nothing of it.
  void waitForSignals() {
    for (int signal = 0; sigwait(&m_signals, &signal) == 0; client().shutdown()) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      if (m_over) return;
      m_signalled = true;
      m_come.notify_all();
    }
  }

  sigset_t m_signals{};
  std::mutex m_mutex;
  std::condition_variable m_come;
  bool m_signalled = false;
  bool m_over = false;
  std::thread m_waiter;  // last: it uses the rest
};
