#include "races/Watchdog.h"

#include <execinfo.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <set>
#include <utility>

namespace orvel::races {
namespace {

using Clock = std::chrono::steady_clock;

// What one thread does.
struct Slot {
  std::atomic<const char*> step{nullptr};
  std::atomic<Clock::rep> since{0};
  pthread_t thread = pthread_self();
};

// Never destroyed: threads may outlive main().
struct Slots {
  std::mutex mutex;
  std::set<Slot*> all;
};
Slots& slots() {
  static Slots& instance = *new Slots;
  return instance;
}

// The thread's own slot, known to the watchdog as long as the thread lives.
Slot& own_slot() {
  struct Known {
    Slot slot;
    Known() {
      const std::lock_guard<std::mutex> lock(slots().mutex);
      slots().all.insert(&slot);
    }
    ~Known() {
      const std::lock_guard<std::mutex> lock(slots().mutex);
      slots().all.erase(&slot);
    }
  };
  thread_local Known known;
  return known.slot;
}

void print_backtrace(int /*signal*/) {
  void* frames[64];
  backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
}

}  // namespace

Watchdog::Step::Step(const char* name) : m_outer(own_slot().step) {
  own_slot().since = Clock::now().time_since_epoch().count();
  own_slot().step = name;
}

Watchdog::Step::~Step() {
  own_slot().since = Clock::now().time_since_epoch().count();
  own_slot().step = m_outer;
}

Watchdog::Watchdog(std::chrono::seconds limit, std::string reproduce)
    : m_limit(limit), m_reproduce(std::move(reproduce)), m_thread([this] { watch(); }) {
  std::signal(SIGUSR2, print_backtrace);
}

Watchdog::~Watchdog() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
  }
  m_changed.notify_all();
  m_thread.join();
}

void Watchdog::watch() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_changed.wait_for(lock, std::chrono::seconds(1), [this] { return m_stopped; })) {
    const std::lock_guard<std::mutex> slots_lock(slots().mutex);
    const auto seconds_in = [now = Clock::now()](const Slot& slot) {
      const Clock::time_point since{Clock::duration(slot.since)};
      return slot.step.load() == nullptr ? 0 : std::chrono::duration_cast<std::chrono::seconds>(now - since).count();
    };
    bool hangs = false;
    for (const Slot* slot : slots().all) hangs = hangs || seconds_in(*slot) > m_limit.count();
    if (!hangs) continue;
    std::fprintf(stderr, "a thread hangs; %s\n", m_reproduce.c_str());
    int number = 0;
    for (const Slot* slot : slots().all) {
      const char* step = slot->step;
      std::fprintf(stderr, "thread %d: %s for %lld s\n", number++, step == nullptr ? "idle" : step,
                   static_cast<long long>(seconds_in(*slot)));
      if (step == nullptr) continue;
      pthread_kill(slot->thread, SIGUSR2);
      m_changed.wait_for(lock, std::chrono::milliseconds(200), [] { return false; });  // so that the outputs do not mix
    }
    _exit(1);
  }
}

}  // namespace orvel::races
