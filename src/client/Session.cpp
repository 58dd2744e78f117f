#include "orvel/Session.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "binder/Process.h"
#include "binder/Waiting.h"

namespace orvel {
namespace {

using service_apis::OrvelDelegateClient;

std::atomic<bool> g_exists{false};

sigset_t ending_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

// Owns a descriptor. `made_by` is the function that made it.
class Descriptor {
 public:
  Descriptor(int fd, const char* made_by) : m_fd(fd) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), made_by);
  }
  ~Descriptor() { close(m_fd); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int get() const { return m_fd; }

 private:
  const int m_fd;
};

// The place of the one session that a process may have.
struct Place {
  Place() {
    if (g_exists.exchange(true)) throw std::logic_error("orvel::Session: there is one already");
  }
  ~Place() { g_exists = false; }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
};

// Blocks the signals on this thread, and on those that it makes.
class Blocked {
 public:
  explicit Blocked(const sigset_t& signals) { pthread_sigmask(SIG_BLOCK, &signals, &m_before); }
  ~Blocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  Blocked(const Blocked&) = delete;
  Blocked& operator=(const Blocked&) = delete;

 private:
  sigset_t m_before{};
};

}  // namespace

// Takes the signals, on a thread of its own.
class Session::Signals {
 public:
  Signals() {
    m_thread = service_apis::start_quiet_thread("orvel-signals", [this] { take(); });
  }
  ~Signals() {
    eventfd_write(m_over.get(), 1);
    m_thread.join();
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Readable once a signal has come.
  [[nodiscard]] int come() const { return m_come.get(); }

 private:
  void take() {
    // From the first signal on, so that an initialize() that is about to begin ends at once, too.
    std::optional<service_apis::waiting::Interrupt> interrupt;
    pollfd events[] = {{m_over.get(), POLLIN, 0}, {m_taken.get(), POLLIN, 0}};
    while (poll(events, 2, -1) < 0 || events[0].revents == 0) {
      signalfd_siginfo signal = {};
      if (read(m_taken.get(), &signal, sizeof(signal)) != sizeof(signal) || interrupt) continue;
      interrupt.emplace();
      eventfd_write(m_come.get(), 1);
      OrvelDelegateClient::getClient().shutdown();
    }
  }

  const Place m_place;
  const sigset_t m_signals = ending_signals();
  const Blocked m_blocked{m_signals};
  const Descriptor m_taken{signalfd(-1, &m_signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"};
  const Descriptor m_come{eventfd(0, EFD_CLOEXEC), "eventfd"};
  const Descriptor m_over{eventfd(0, EFD_CLOEXEC), "eventfd"};
  std::thread m_thread;  // Last: it uses the rest.
};

Session::Session() : m_signals(std::make_unique<Signals>()) {
  m_started = OrvelDelegateClient::getClient().initialize();
}

Session::Session(const service_apis::StartOptions& options) : m_signals(std::make_unique<Signals>()) {
  m_started = OrvelDelegateClient::getClient().start(options);
}

Session::~Session() {
  OrvelDelegateClient::getClient().shutdown();
}

OrvelDelegateClient* Session::operator->() const {
  return &OrvelDelegateClient::getClient();
}

bool Session::wasEnded() const {
  return waitFor(std::chrono::nanoseconds(0));
}

void Session::wait() const {
  while (!waitFor(std::chrono::hours(1))) {
  }
}

bool Session::waitFor(std::chrono::nanoseconds limit) const {
  const auto end = std::chrono::steady_clock::now() + limit;
  pollfd come = {fd(), POLLIN, 0};
  do {
    const auto left = std::max(end - std::chrono::steady_clock::now(), std::chrono::nanoseconds(0));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec time = {static_cast<std::time_t>(seconds.count()), static_cast<long>((left - seconds).count())};
    if (ppoll(&come, 1, &time, nullptr) > 0) return true;
  } while (std::chrono::steady_clock::now() < end);  // a handler of the program's may have run
  return false;
}

int Session::fd() const {
  return m_signals->come();
}

}  // namespace orvel
