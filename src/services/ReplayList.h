// Registrations that a service forgets when it dies, so that they must be made again on its next connection.
#pragma once

#include <atomic>
#include <utility>

#include "binder/Binder.h"

namespace orvel::service_apis {

// Each registration is made once on each connection, whatever a death overlaps with:
//
//   a thread that registers     call on connection C, append, look at the newest connection N; N > C: claim N
//   the replay of connection N  N becomes the newest, walk the list; claim N for each entry
//
// The thread that claims an entry for N makes that registration on N only. An entry that the replay of N could not see yet
// was appended after N had become the newest connection, so the thread that registers sees N and claims it itself. That is
// why the list and the number of the connection are sequentially consistent.
//
// The list only grows, and nobody takes a lock. Threads: any number that add, and the run loop's that replays.
template <typename Registration>
class ReplayList {
 public:
  ReplayList() = default;
  ReplayList(const ReplayList&) = delete;
  ReplayList& operator=(const ReplayList&) = delete;

  ~ReplayList() {
    for (Entry* entry = m_head.next; entry;) delete std::exchange(entry, entry->next);
  }

  // Keeps a registration that was made on connection `carrier`. When the service has been bound anew meanwhile,
  // `renew(registration, connection)` is called to make it on that connection too.
  template <typename Renew>
  void add(Registration registration, Connection carrier, const Binder& binder, const Renew& renew) {
    Entry& entry = append(new Entry(std::move(registration), carrier));
    // Behind the append and never before it: a replay that ran in between has not seen the entry.
    const Connection newest = binder.connection();
    renew_once(entry, newest, renew);
  }

  // Renews everything, in the order of insertion, but what the newest connection has already.
  template <typename Renew>
  void replay(const Binder& binder, const Renew& renew) {
    const Connection newest = binder.connection();
    for (Entry* entry = m_head.next; entry; entry = entry->next) renew_once(*entry, newest, renew);
  }

 private:
  struct Entry;
  struct Link {
    std::atomic<Entry*> next{nullptr};
  };
  struct Entry : Link {
    Entry(Registration kept, Connection carrier) : registration(std::move(kept)), claimed(carrier) {}
    const Registration registration;
    std::atomic<Connection> claimed;  // the newest connection that somebody has made it on, or is about to
  };

  template <typename Renew>
  static void renew_once(Entry& entry, Connection newest, const Renew& renew) {
    Connection claimed = entry.claimed;
    while (claimed < newest) {
      if (entry.claimed.compare_exchange_weak(claimed, newest)) {
        renew(entry.registration, newest);
        return;
      }
    }
  }

  // An entry is in the list from the moment at which the last one points to it; m_last may lag behind.
  Entry& append(Entry* entry) {
    Link* last = m_last;
    for (Entry* next = nullptr; !last->next.compare_exchange_strong(next, entry); next = nullptr) last = next;
    m_last = entry;
    return *entry;
  }

  Link m_head;
  std::atomic<Link*> m_last{&m_head};
};

}  // namespace orvel::service_apis
