// Registrations that a service forgets when it dies, so that they must be made again on its next connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "binder/Binder.h"
#include "binder/Callback.h"
#include "binder/ThreadAnnotations.h"

namespace orvel::service_apis {

// Makes each registration once on each connection, wherever a death falls:
//
//   a thread that registers     call on connection C, append, look at the newest connection N; N > C: claim N
//   the replay of connection N  N becomes the newest, copy the list; claim N for each entry
//
// The thread that claims an entry for connection N makes that registration on N only. An entry that the replay of N
// came too early to copy was appended after N had become the newest connection, so the registering thread sees N and
// claims it. That is why the number of the connection is sequentially consistent.
//
// An entry leaves the list when its callback ends, and is not made again then. The list's lock is held for no call.
// Threads: any number that add and that end callbacks, and the one that replays.
template <typename Registration>
class ReplayList {
 public:
  // Makes the registration on `connection`, and on no other; true when the service has taken it.
  using Renew = std::function<bool(const Registration& registration, Connection connection)>;

  // `binder` is borrowed for the list's life, and not used before add() or replay().
  ReplayList(const Binder& binder, Renew renew)
      : m_binder(binder), m_renew(std::move(renew)), m_entries(std::make_shared<Entries>()) {}
  ReplayList(const ReplayList&) = delete;
  ReplayList& operator=(const ReplayList&) = delete;

  // Keeps a registration that was made on connection `taken_by`, and renews it when the service has been bound anew
  // meanwhile. `callback`, if there is one, is what ends it.
  void add(Registration registration, Connection taken_by, const std::shared_ptr<Callback>& callback = nullptr) {
    const auto entry = std::make_shared<Entry>(std::move(registration), taken_by, callback);
    append(entry);
    // Behind the append and never before it: a replay that ran in between has not seen the entry.
    renew_once(*entry, m_binder.connection());
  }

  // Renews everything, in the order of insertion, except what the newest connection has already.
  void replay() {
    const Connection newest = m_binder.connection();
    std::vector<EntryPtr> entries;
    {
      const std::lock_guard<std::mutex> lock(m_entries->mutex);
      entries.assign(m_entries->list.begin(), m_entries->list.end());
    }
    for (const EntryPtr& entry : entries) renew_once(*entry, newest);
  }

 private:
  struct Entry {
    Entry(Registration made, Connection connection, std::shared_ptr<Callback> ends)
        : registration(std::move(made)), claimed_for(connection), callback(std::move(ends)) {}
    const Registration registration;
    std::atomic<Connection> claimed_for;  // the newest connection on which a thread has made it or is about to
    const std::shared_ptr<Callback> callback;
  };
  using EntryPtr = std::shared_ptr<Entry>;

  // Shared with the ends of callbacks, which may come when the list is gone.
  struct Entries {
    std::mutex mutex;
    std::list<EntryPtr> list ORVEL_GUARDED_BY(mutex);
  };

  void append(const EntryPtr& entry) {
    const std::lock_guard<std::mutex> lock(m_entries->mutex);
    const auto place = m_entries->list.insert(m_entries->list.end(), entry);
    LinkRecord& link = m_binder.link();
    const std::uint64_t life = link.hold();
    if (!entry->callback) return;
    entry->callback->at_end([entries = std::weak_ptr<Entries>(m_entries), place, &link, life] {
      const auto alive = entries.lock();
      if (!alive) return;
      EntryPtr ended;  // destroyed behind the lock
      const std::lock_guard<std::mutex> locked(alive->mutex);
      ended = std::move(*place);
      alive->list.erase(place);
      link.let_go(life);
    });
  }

  void renew_once(Entry& entry, Connection newest) {
    Connection claimed_for = entry.claimed_for;
    while (claimed_for < newest) {
      if (!entry.claimed_for.compare_exchange_weak(claimed_for, newest)) continue;
      if (entry.callback && entry.callback->ended()) return;
      const bool taken = m_renew(entry.registration, newest);
      m_binder.link().renewed(taken ? 1 : 0, taken ? 0 : 1);
      return;
    }
  }

  const Binder& m_binder;
  const Renew m_renew;
  const std::shared_ptr<Entries> m_entries;
};

}  // namespace orvel::service_apis
