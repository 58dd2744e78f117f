// Registrations that a service forgets when it dies, so that they must be made again on its next connection.
#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include "binder/Binder.h"

namespace orvel::service_apis {

// Makes each registration once on each connection, wherever a death falls:
//
//   a thread that registers     call on connection C, append, look at the newest connection N; N > C: claim N
//   the replay of connection N  N becomes the newest, walk the list; claim N for each entry
//
// The thread that claims an entry for connection N makes that registration on N only. An entry that the replay of N
// came too early to see was appended after N had become the newest connection, so the registering thread sees N and
// claims it. That is why the list and the number of the connection are sequentially consistent.
//
// The list only grows, and takes no lock. Threads: any number that add, and the run loop's that replays.
template <typename Registration>
class ReplayList {
 public:
  // Makes the registration on `connection`, and on no other.
  using Renew = std::function<void(const Registration& registration, Connection connection)>;

  // `binder` is borrowed for the list's life, and not used before add() or replay().
  ReplayList(const Binder& binder, Renew renew) : m_binder(binder), m_renew(std::move(renew)) {}
  ReplayList(const ReplayList&) = delete;
  ReplayList& operator=(const ReplayList&) = delete;

  ~ReplayList() {
    for (Entry* entry = m_head.next; entry;) delete std::exchange(entry, entry->next);
  }

  // Keeps a registration that was made on connection `taken_by`, and renews it when the service has been bound anew
  // meanwhile.
  void add(Registration registration, Connection taken_by) {
    Entry& entry = append(new Entry(std::move(registration), taken_by));
    // Behind the append and never before it: a replay that ran in between has not seen the entry.
    renew_once(entry, m_binder.connection());
  }

  // Renews everything, in the order of insertion, except what the newest connection has already.
  void replay() {
    const Connection newest = m_binder.connection();
    for (Entry* entry = m_head.next; entry; entry = entry->next) renew_once(*entry, newest);
  }

 private:
  struct Entry;
  struct Link {
    std::atomic<Entry*> next{nullptr};
  };
  struct Entry : Link {
    Entry(Registration made, Connection taken_by) : registration(std::move(made)), claimed_for(taken_by) {}
    const Registration registration;
    std::atomic<Connection> claimed_for;  // the newest connection on which a thread has made it or is about to
  };

  void renew_once(Entry& entry, Connection newest) {
    Connection claimed_for = entry.claimed_for;
    while (claimed_for < newest) {
      if (entry.claimed_for.compare_exchange_weak(claimed_for, newest)) {
        m_renew(entry.registration, newest);
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

  const Binder& m_binder;
  const Renew m_renew;
  Link m_head;
  std::atomic<Link*> m_last{&m_head};
};

}  // namespace orvel::service_apis
