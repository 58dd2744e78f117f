// One connection to one named service: bound at construction, bound again after the service died, and the frame of
// every transaction.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "binder/Disposal.h"
#include "binder/IpcHandle.h"
#include "binder/LinkBoard.h"
#include "binder/ThreadAnnotations.h"
#include "binder/Waiting.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

// Writes the arguments of a transaction behind the header and the descriptor. Made of any callable that takes the
// payload, and borrows it: for parameters alone. One that returns a bool says with false that the request is incomplete
// and must not be sent.
class RequestWriter {
 public:
  RequestWriter() = default;  // empty: throws std::bad_function_call when it is called

  template <typename Write, typename Result = std::invoke_result_t<const Write&, vesk_payload*>>
  RequestWriter(const Write& write)  // NOLINT(google-explicit-constructor): a writer is what a lambda is given as
      : m_callable(&write), m_write([](const void* callable, vesk_payload* request) {
          const Write& run = *static_cast<const Write*>(callable);
          if constexpr (std::is_void_v<Result>) {
            run(request);
            return true;
          } else {
            return run(request);
          }
        }) {}

  bool operator()(vesk_payload* request) const {
    if (!m_write) throw std::bad_function_call();
    return m_write(m_callable, request);
  }

 private:
  const void* m_callable = nullptr;
  bool (*m_write)(const void* callable, vesk_payload* request) = nullptr;
};

// The writer of a transaction without arguments.
inline constexpr auto kNoArguments = [](vesk_payload*) {};

// The connections of a Binder, counted from 1. What a service was told it forgets with the connection.
using Connection = std::uint64_t;
constexpr Connection kNoConnection = 0;

// Owned by one proxy.
//
//   unbound --bind_to_service()--> bound --the service dies--> unbound --6 s pause, bind_to_service()--> bound
//
// Once bind_to_service() has given up, after 300 s, every call fails, and only bind_beside() tries again.
//
//   idle --call()--> reply held --done()--> idle
//
// Threads: construction and destruction on the caller's, the rebind on the run-loop thread, bind_beside() on one of the
// library's, everything else on any.
// Locks, in order: m_transaction, from before a call until its reply has been read (Reply); m_mutex, across the call
// and briefly elsewhere. No lock is held while waiting, so that calls made during a rebind fail at once.
class Binder {
 public:
  class Reply;

  // When a Binder looks for its service.
  enum class Bind { kNow, kBeside };

  // Blocks until the service is bound or given up; with kBeside it does not, and bind_beside() is due. `runtime` is
  // borrowed. With `is_android_service` the service is looked up in the Android service manager. `reconnect_callback`
  // runs after each successful rebind, on its thread. `link` is kept true; it lives as long as the process.
  Binder(
      void* runtime, const char* service_name, bool is_android_service,
      std::function<void()> reconnect_callback = [] {}, LinkRecord& link = LinkRecord::unlisted(),
      Bind bind = Bind::kNow);
  ~Binder();

  Binder(const Binder&) = delete;
  Binder& operator=(const Binder&) = delete;

  // True when the service is bound with a death listener; false when it cannot be watched, when 300 s have passed, and
  // when a shutdown interrupts.
  bool bind_to_service() ORVEL_EXCLUDES(m_mutex);

  // Binds the service again, after a pause. Run-loop thread.
  void on_binder_died() ORVEL_EXCLUDES(m_mutex);

  // Binds the service beside the run loop, which meanwhile runs: for the first time, or after it was given up. On a
  // thread of the library's own, one at a time: the thread that got true from link().look_for().
  void bind_beside() ORVEL_EXCLUDES(m_mutex);

  [[nodiscard]] LinkRecord& link() const { return m_link; }
  // The epoch of the link that the connection is.
  [[nodiscard]] std::uint64_t epoch_of(Connection connection) const { return m_epochs_before + connection; }

  // Sends transaction `code` of the interface `descriptor` with the arguments of `writer`, and returns the reply, which
  // is null on any failure and for a remote exception. Each of these is logged, an unbound service too.
  [[nodiscard]] Reply call(const char* descriptor, unsigned int code, const RequestWriter& writer = kNoArguments)
      ORVEL_EXCLUDES(m_mutex);

  // The same for callers that say themselves what an unbound service means: empty, with nothing sent and nothing
  // logged, when the service is not bound, or not by `required_connection` (kNoConnection: any will do).
  [[nodiscard]] std::optional<Reply> call_if_bound(const char* descriptor, unsigned int code,
                                                   const RequestWriter& writer,
                                                   Connection required_connection = kNoConnection)
      ORVEL_EXCLUDES(m_mutex);

  // Frees the request and the reply, those of a failed call too. May be called again.
  void done() ORVEL_EXCLUDES(m_mutex);

  // Whether the service is bound.
  [[nodiscard]] bool good() ORVEL_EXCLUDES(m_mutex);

  // The newest connection, dead ones included. Takes no lock.
  [[nodiscard]] Connection connection() const { return m_connection; }

  // Begins a request; false only for a null payload, other failures stick to the payload.
  static bool writeHeaders(vesk_payload* payload);

  // Reads the head of a reply: true, with the exception logged, when the service answered with one.
  static bool exceptionOccurred(vesk_buffer* buffer);

 private:
  std::unique_ptr<vesk::IpcHandle> look_up() const;
  // Looks for the service until it is found; null, with the link given up, in all other cases.
  std::unique_ptr<vesk::IpcHandle> find();
  // True when the service is bound with a death listener; false, with the link given up, when it cannot be watched.
  bool install(std::unique_ptr<vesk::IpcHandle> handle) ORVEL_EXCLUDES(m_mutex);
  // Makes the registrations again and tells that the link is up.
  void restore();
  vesk_buffer* send(const char* descriptor, unsigned int code, const RequestWriter& writer) ORVEL_REQUIRES(m_mutex);
  void free_messages() ORVEL_REQUIRES(m_mutex);

  waiting::Mutex m_transaction;
  waiting::Mutex m_mutex;
  void* const m_runtime;
  const std::string m_service_name;
  const bool m_is_android_service;
  std::unique_ptr<vesk::IpcHandle> m_handle ORVEL_GUARDED_BY(m_mutex);  // null while unbound
  // Plain pointers, not owners: deliberately, a call overwrites a pair that was kept and leaves it allocated.
  vesk_payload* m_payload ORVEL_GUARDED_BY(m_mutex) = nullptr;
  vesk_buffer* m_buffer ORVEL_GUARDED_BY(m_mutex) = nullptr;
  std::atomic<Connection> m_connection{kNoConnection};  // changes under m_mutex
  const std::function<void()> m_reconnect_callback;
  LinkRecord& m_link;
  const std::uint64_t m_epochs_before;  // of the link, whose epochs go on over shutdown()
};

// The reply of one transaction, which ends with it. Until then its thread is the only one with a transaction on the
// Binder, because the done() of another thread would free the reply. A thread holds one of each Binder at a time.
class Binder::Reply {
 public:
  Reply(Reply&& other) noexcept
      : m_disposal(other.m_disposal),
        m_lock(std::move(other.m_lock)),
        m_binder(std::exchange(other.m_binder, nullptr)),
        m_buffer(other.m_buffer),
        m_connection(other.m_connection) {}
  Reply& operator=(Reply&&) = delete;
  ~Reply();

  // The reply, behind its exception code; null when the call failed. Borrowed.
  [[nodiscard]] vesk_buffer* get() const { return m_buffer; }

  // The connection over which the service has answered; kNoConnection when the call failed.
  [[nodiscard]] Connection connection() const { return m_connection; }

  // Leaves the request and the reply to the Binder, whose next call forgets them.
  void keep();

 private:
  friend class Binder;
  Reply() = default;
  explicit Reply(waiting::Mutex& transaction) : m_lock(transaction) {}
  void note_whether_cut() const;

  Disposal m_disposal;  // First: the endpoints that end with the request are disposed of when the lock is free.
  std::unique_lock<waiting::Mutex> m_lock;
  Binder* m_binder = nullptr;  // whose done() is due
  vesk_buffer* m_buffer = nullptr;
  Connection m_connection = kNoConnection;
};

}  // namespace orvel::service_apis
