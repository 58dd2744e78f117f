// Events of the assistant whose outcome is told exactly once.
#pragma once

#include <atomic>
#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "binder/Callback.h"
#include "binder/Disposal.h"
#include "binder/ThreadAnnotations.h"
#include "binder/Waiting.h"
#include "client/LibraryThreads.h"
#include "orvel/AssistantEvent.h"

namespace orvel::service_apis {

// One event, from before it is sent on. Threads: any.
class PendingEvent {
 public:
  explicit PendingEvent(EventOutcomeCallback callback)
      : m_callback(std::move(callback), "send", Callback::Lasts::kBeyond) {}

  // Tells the outcome, unless one was told. True when this did so.
  bool tell(const EventOutcome& outcome);
  // The same where nothing takes what the callback throws: that is logged.
  bool tell_beside(const EventOutcome& outcome) noexcept;
  // The same for an event that is lost.
  void lose() noexcept;
  // From now on none is told; false when one was told already.
  bool close() { return !m_is_over.exchange(true); }
  [[nodiscard]] bool is_over() const { return m_is_over; }

 private:
  const SharedCallback<EventOutcomeCallback> m_callback;
  std::atomic<bool> m_is_over{false};
};

using PendingEventPtr = std::shared_ptr<PendingEvent>;

// Held by all who may still bring the outcome: the call that sends the event, and the endpoint for its result, which
// the service holds. The last one to let go tells that the event is lost, where no lock is held.
class EventHolder {
 public:
  explicit EventHolder(PendingEventPtr event) : m_held(new Held(std::move(event))) {}

  [[nodiscard]] PendingEvent& event() const { return *static_cast<const Held*>(m_held.get())->event; }
  [[nodiscard]] PendingEventPtr shared() const { return static_cast<const Held*>(m_held.get())->event; }

 private:
  struct Held : Disposable {
    explicit Held(PendingEventPtr held) : event(std::move(held)) {}
    ~Held() override;
    const PendingEventPtr event;
  };

  DisposablePtr m_held;
};

// The events that were accepted, and the deadlines of some, on a thread that exists while there are any. Threads: any.
//
// A death loses them all at once. libvesk lets go of what a dead service held, too, but perhaps behind the word of its
// death, and so behind the minutes in which the service is looked for.
class PendingEvents {
 public:
  explicit PendingEvents(LibraryThreads& threads);

  // The event was accepted. Tells "TIMEOUT" when the deadline, unless it is zero, has passed from now.
  void await(const PendingEventPtr& event, std::chrono::nanoseconds deadline) ORVEL_EXCLUDES(m_mutex);
  // The event is over.
  void forget(const PendingEvent& event) ORVEL_EXCLUDES(m_mutex);

  // From now on no event is told to be lost, because the process ends.
  static void keep_quiet();

 private:
  void limit(const PendingEventPtr& event, std::chrono::nanoseconds deadline) ORVEL_EXCLUDES(m_mutex);
  void lose_all() ORVEL_EXCLUDES(m_mutex);
  void watch() ORVEL_EXCLUDES(m_mutex);

  using Deadline = std::pair<waiting::TimePoint, PendingEventPtr>;
  // The first deadline, for the thread that watches and has `bell`; empty when it is to end.
  std::optional<Deadline> next_deadline(waiting::Bell& bell) ORVEL_EXCLUDES(m_mutex);

  LibraryThreads& m_threads;
  std::mutex m_mutex;
  std::list<std::weak_ptr<PendingEvent>> m_accepted ORVEL_GUARDED_BY(m_mutex);  // some of which are over
  std::multimap<waiting::TimePoint, PendingEventPtr> m_deadlines ORVEL_GUARDED_BY(m_mutex);
  bool m_is_watched ORVEL_GUARDED_BY(m_mutex) = false;        // by a thread, which ends when there is no deadline
  waiting::Bell* m_bell ORVEL_GUARDED_BY(m_mutex) = nullptr;  // of that thread
};

}  // namespace orvel::service_apis
