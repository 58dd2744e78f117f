/// @file
/// The life of a program that uses the client.
#pragma once

#include <chrono>
#include <memory>

#include "orvel/Export.h"
#include "orvel/OrvelDelegateClient.h"
#include "orvel/StartOptions.h"

namespace orvel {

/// Starts the client, and ends it on SIGINT, on SIGTERM and with itself.
///
///     int main() {
///       ...                                  // what callbacks use: it outlives the session
///       orvel::Session session;
///       if (!session) return session.wasEnded() ? 0 : 1;
///       const auto screen = session->subscribeScreenStateChange(...);
///       session.wait();                      // until a signal has come
///     }
///
/// The first signal shuts the client down, an initialize() in progress included, and keeps it so until the session's
/// end; further ones change nothing. One session at a time in a process.
///
/// Make it before other threads: it blocks the two signals in the thread that makes it, which threads made later
/// inherit, and a thread of its own, "orvel-signals", takes them. Programs that are started meanwhile inherit the
/// blocked signals too: unblock them between fork and exec (posix_spawnattr_setsigmask). The end of the session
/// unblocks those that it has blocked.
///
/// Threads: made and destroyed on one; the rest on any.
class ORVEL_API Session {
 public:
  /// Initialises the client as initialize() does. Throws std::system_error when there is no thread or descriptor left,
  /// and std::logic_error while another session exists.
  Session();
  /// Starts the client as start() does.
  explicit Session(const service_apis::StartOptions& options);
  /// Shuts the client down. Not to be destroyed in a callback.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// What initialize() or start() returned; lastCall() says why it failed.
  explicit operator bool() const { return m_started; }

  /// The client.
  service_apis::OrvelDelegateClient* operator->() const;

  /// Whether a signal has come.
  [[nodiscard]] bool wasEnded() const;

  /// Returns when a signal has come.
  void wait() const;

  /// True as soon as a signal has come; false when the limit has passed. On the machine's clock, with the test kit too.
  [[nodiscard]] bool waitFor(std::chrono::nanoseconds limit) const;

  /// Readable once a signal has come: for a program with a loop of its own. Belongs to the session.
  int fd() const;

 private:
  class ORVEL_LOCAL Signals;

  const std::unique_ptr<Signals> m_signals;
  const bool m_started;
};

}  // namespace orvel
