/// @file
/// Subscriptions that end.
#pragma once

#include <memory>

#include "orvel/Export.h"

namespace orvel::service_apis {

class Callback;

/// One subscription, which lasts as long as this object does, and until shutdown() at most. Empty when the service did
/// not take it; lastCall() then says why.
///
/// The destructor follows the rule of std::stop_callback. It ends the subscription, and then:
/// - on another thread than the one that runs the callback it waits until that has returned. It waits for no other
///   callback and for no service. Afterwards nothing of the callback runs, and what it captured is destroyed; by a
///   shutdown() that is under way on another thread, before that returns.
/// - inside the callback itself it does not wait; what the callback captured is destroyed when it returns.
///
/// An ended subscription is not made again when its service is back. The service is not told: what it still sends is
/// dropped in this process. What waits for an executor is dropped, too.
///
/// Two deadlocks are left: do not destroy it while you hold a lock that the callback takes, and let no two callbacks
/// that run at the same time, on two threads, end each other.
///
/// May outlive shutdown() and the client, and may be destroyed at any time, in exit handlers too. Threads: any, one at
/// a time.
class [[nodiscard]] ORVEL_API Subscription {
 public:
  /// Empty.
  Subscription() noexcept;
  ~Subscription();
  /// Takes over what `other` holds, which is empty then.
  Subscription(Subscription&& other) noexcept;
  /// The same, and ends the subscription that this holds.
  Subscription& operator=(Subscription&& other) noexcept;
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  /// True until it is ended by this object; false for an empty one.
  explicit operator bool() const noexcept { return m_made; }

  /// Does what the destructor does.
  void end() noexcept;

  /// Lets go of the subscription, which then lasts until shutdown(), as those of the registerFor methods do; one to
  /// links lasts as long as the process.
  void keep() noexcept;

 private:
  friend class Subscriptions;
  ORVEL_LOCAL explicit Subscription(std::weak_ptr<Callback> callback) noexcept;

  std::weak_ptr<Callback> m_callback;
  bool m_made = false;
};

}  // namespace orvel::service_apis
