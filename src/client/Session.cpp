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
#include <mutex>
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

// Blocks the signals on this thread, and on those that it makes. Others may be blocked and unblocked meanwhile.
class Blocked {
 public:
  explicit Blocked(const sigset_t& signals) : m_own(signals) {
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    for (const int each : {SIGINT, SIGTERM}) {
      if (sigismember(&before, each) == 1) sigdelset(&m_own, each);
    }
  }
  ~Blocked() { pthread_sigmask(SIG_UNBLOCK, &m_own, nullptr); }
  Blocked(const Blocked&) = delete;
  Blocked& operator=(const Blocked&) = delete;

 private:
  sigset_t m_own;  // those that were not blocked before
};

}  // namespace

// Takes the signals, on a thread of its own.
class Session::Signals {
 public:
  Signals() {
    m_thread = service_apis::start_quiet_thread("orvel-signals", [this] { take(); });
  }
  ~Signals() {
    if (getpid() != m_process) {
      m_thread.detach();  // The child of a fork has no such thread, and must not end that of its parent.
      return;
    }
    eventfd_write(m_over.get(), 1);
    m_thread.join();
    while (take_one()) {  // What has come during a long shutdown() must not end the process when it is unblocked.
    }
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Readable once a signal has come.
  [[nodiscard]] int come() const { return m_come.get(); }

  // Returns when none is just coming: what it has interrupted finds that it has come.
  void settle() const { const std::lock_guard<std::mutex> lock(m_coming); }

 private:
  [[nodiscard]] bool take_one() const {
    signalfd_siginfo signal = {};
    return read(m_taken.get(), &signal, sizeof(signal)) == sizeof(signal);
  }

  void take() {
    // From the first signal on, so that an initialize() that is about to begin ends at once, too.
    std::optional<service_apis::waiting::Interrupt> interrupt;
    pollfd events[] = {{m_over.get(), POLLIN, 0}, {m_taken.get(), POLLIN, 0}};
    while (poll(events, 2, -1) < 0 || events[0].revents == 0) {
      if (!take_one() || interrupt) continue;
      {
        const std::lock_guard<std::mutex> lock(m_coming);
        interrupt.emplace();  // First: who learns that a signal has come finds the client ended.
        eventfd_write(m_come.get(), 1);
      }
      OrvelDelegateClient::getClient().shutdown();
    }
  }

  const pid_t m_process = getpid();
  const Place m_place;
  const sigset_t m_signals = ending_signals();
  const Blocked m_blocked{m_signals};
  const Descriptor m_taken{signalfd(-1, &m_signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"};
  const Descriptor m_come{eventfd(0, EFD_CLOEXEC), "eventfd"};
  mutable std::mutex m_coming;
  const Descriptor m_over{eventfd(0, EFD_CLOEXEC), "eventfd"};
  std::thread m_thread;  // Last: it uses the rest.
};

Session::Session() : m_signals(std::make_unique<Signals>()), m_started(OrvelDelegateClient::getClient().initialize()) {}

Session::Session(const service_apis::StartOptions& options)
    : m_signals(std::make_unique<Signals>()), m_started(OrvelDelegateClient::getClient().start(options)) {}

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
  pollfd come = {fd(), POLLIN, 0};
  while (poll(&come, 1, -1) <= 0) {  // a handler of the program's may have run
  }
}

// On the machine's clock: these are the program's waits and not the library's.
bool Session::waitFor(std::chrono::nanoseconds limit) const {
  constexpr std::chrono::hours kLongest(24 * 365);  // The end of a longer wait may be beyond what the clock can tell.
  const auto end = std::chrono::steady_clock::now() + std::min<std::chrono::nanoseconds>(limit, kLongest);
  pollfd come = {fd(), POLLIN, 0};
  m_signals->settle();
  do {
    const auto left = std::max(end - std::chrono::steady_clock::now(), std::chrono::nanoseconds(0));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec time = {static_cast<std::time_t>(seconds.count()), static_cast<long>((left - seconds).count())};
    if (ppoll(&come, 1, &time, nullptr) > 0) return true;
  } while (std::chrono::steady_clock::now() < end);
  return false;
}

int Session::fd() const {
  return m_signals->come();
}

}  // namespace orvel
