// How the client stands with the services, and who wants to know.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "binder/Callback.h"
#include "binder/ThreadAnnotations.h"
#include "binder/Waiting.h"
#include "orvel/Links.h"
#include "orvel/Service.h"

namespace orvel::service_apis {

class LinkBoard;

// The link to one service. Its Binder changes it, and then has the board tell it where no lock is held. Threads: any.
class LinkRecord {
 public:
  // Of a Binder that is for none of the services; in no board.
  static LinkRecord& unlisted();

  explicit LinkRecord(Service service);
  LinkRecord(const LinkRecord&) = delete;
  LinkRecord& operator=(const LinkRecord&) = delete;

  [[nodiscard]] Link get() const ORVEL_EXCLUDES(m_mutex);
  [[nodiscard]] std::uint64_t epoch() const { return m_epoch.load(std::memory_order_relaxed); }
  [[nodiscard]] LinkState state() const { return m_state.load(std::memory_order_relaxed); }

  // The service is looked for, for the first time since the client was initialised or again after it was given up:
  // false, and nothing changed, unless it was stopped or given up.
  bool look_for() ORVEL_EXCLUDES(m_mutex);
  // The service is bound, and has forgotten what it was told. Returns the new epoch.
  std::uint64_t bound() ORVEL_EXCLUDES(m_mutex);
  // Counts registrations that were made again.
  void renewed(std::size_t restored, std::size_t refused) ORVEL_EXCLUDES(m_mutex);
  // They all are. Does nothing when that epoch has ended meanwhile.
  void up(std::uint64_t epoch) ORVEL_EXCLUDES(m_mutex);
  void died() ORVEL_EXCLUDES(m_mutex);
  // Has after_death() run `hook`. Before the service is bound for the first time.
  void at_death(std::function<void()> hook) { m_at_death = std::move(hook); }
  // Behind died(), under no lock.
  void after_death() const {
    if (m_at_death) m_at_death();
  }
  void given_up(const char* cause) ORVEL_EXCLUDES(m_mutex);
  void stopped() ORVEL_EXCLUDES(m_mutex);

  // The client keeps one more registration. Returns what let_go() takes.
  std::uint64_t hold() ORVEL_EXCLUDES(m_mutex);
  // It has ended. Does nothing when the client was stopped meanwhile, with which all have ended.
  void let_go(std::uint64_t life) ORVEL_EXCLUDES(m_mutex);
  // The one registration that is not made again was taken in that epoch; `number` tells it from all others.
  void network_taken(std::uint64_t epoch, std::uint64_t number) ORVEL_EXCLUDES(m_mutex);
  // It was ended, unless another one took its place.
  void network_ended(std::uint64_t number) ORVEL_EXCLUDES(m_mutex);

 private:
  void change_to(LinkState state, const char* cause) ORVEL_REQUIRES(m_mutex);
  void hold_network(std::uint64_t number) ORVEL_REQUIRES(m_mutex);

  std::function<void()> m_at_death;

  mutable std::mutex m_mutex;
  Link m_link ORVEL_GUARDED_BY(m_mutex);
  bool m_is_bound ORVEL_GUARDED_BY(m_mutex) = false;
  bool m_has_been_up ORVEL_GUARDED_BY(m_mutex) = false;   // since the last stop
  std::uint64_t m_life ORVEL_GUARDED_BY(m_mutex) = 0;     // from one stop to the next
  std::uint64_t m_network ORVEL_GUARDED_BY(m_mutex) = 0;  // its number; 0 while there is none
  std::atomic<std::uint64_t> m_epoch{0};                  // that of m_link
  std::atomic<LinkState> m_state{LinkState::kStopped};    // likewise
};

// The links to all services. Lives as long as the process. Threads: any.
class LinkBoard {
 public:
  static LinkBoard& instance();

  LinkRecord& record(Service service) { return *m_records.at(static_cast<std::size_t>(service)); }

  // Tells the callback how the links are, of one service or of all, and from then on what tell() tells.
  std::shared_ptr<Callback> subscribe(std::optional<Service> service, LinkCallback callback) ORVEL_EXCLUDES(m_mutex);

  // Tells all callbacks what they do not know yet. Each is called by one thread at a time, which goes on until it knows
  // everything: a thread of the library waits for that one, so that what it does next comes after; every other thread
  // leaves it to that one. Called under no lock.
  void tell() ORVEL_EXCLUDES(m_mutex);

  enum class Waited { kWanted, kLate, kInterrupted };
  // Returns as soon as `wanted` is true, when the limit has passed, and when a shutdown interrupts. `wanted` is asked
  // again after each change.
  Waited wait(const std::function<bool()>& wanted, std::chrono::nanoseconds limit) ORVEL_EXCLUDES(m_mutex);

  // Exists while a thread beside the run loop's brings a service up. No notification is delivered meanwhile, so that
  // each comes after the link is told to be up.
  class Restoring {
   public:
    Restoring();
    ~Restoring();
    Restoring(const Restoring&) = delete;
    Restoring& operator=(const Restoring&) = delete;
  };
  // For the run-loop thread, in front of a notification.
  void wait_until_restored() ORVEL_EXCLUDES(m_mutex);

 private:
  class Listener;
  friend class LinkRecord;

  LinkBoard();
  void wake_waiting() ORVEL_EXCLUDES(m_mutex);

  std::array<std::unique_ptr<LinkRecord>, kAllServices.size()> m_records;
  std::mutex m_mutex;
  std::vector<std::shared_ptr<Listener>> m_listeners ORVEL_GUARDED_BY(m_mutex);
  std::vector<waiting::Bell*> m_waiting ORVEL_GUARDED_BY(m_mutex);
  std::atomic<int> m_restoring{0};
  waiting::Condition m_restored;
};

}  // namespace orvel::service_apis
