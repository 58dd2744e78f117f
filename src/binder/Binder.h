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
#include "binder/ThreadAnnotations.h"
#include "vesk/vesk.h"

namespace orvel::service_apis {

// Writes the arguments of a transaction behind the header and the descriptor. Made of any callable that takes the payload; one
// that returns a bool says with false that the request is not whole and must not be sent.
class RequestWriter {
 public:
  RequestWriter() = default;  // empty: throws std::bad_function_call when it is called

  template <typename Write, typename Result = std::invoke_result_t<const Write&, vesk_payload*>>
  RequestWriter(Write write) {  // NOLINT(google-explicit-constructor): a writer is what a lambda is given as
    if constexpr (std::is_void_v<Result>) {
      m_write = [write = std::move(write)](vesk_payload* request) {
        write(request);
        return true;
      };
    } else {
      m_write = std::move(write);
    }
  }

  bool operator()(vesk_payload* request) const { return m_write(request); }

 private:
  std::function<bool(vesk_payload*)> m_write;
};

// The writer of a transaction without arguments.
inline void no_arguments(vesk_payload*) {}

// The connections of a Binder, counted from 1. What a service was told it forgets with the connection.
using Connection = std::uint64_t;
constexpr Connection kNoConnection = 0;

// Owned by one proxy.
//
//   unbound --bind_to_service()--> bound --the service dies--> unbound --6 s pause, bind_to_service()--> bound
//
// Once bind_to_service() has given up, after 300 s, nothing tries again and every call fails.
//
//   idle --call()--> reply held --done()--> idle
//
// Threads: construction and destruction on the caller's, the rebind on the run-loop thread, everything else on any.
// Locks, in order: m_transaction, from before a call until its reply has been read (ReplyScope); m_mutex, across call()
// and briefly elsewhere. No lock is held while waiting, so that calls made during a rebind fail at once.
class Binder {
 public:
  // Blocks until the service is bound or given up. `runtime` is borrowed. With `is_android_service` the service is
  // looked up in the Android service manager. `reconnect_callback` runs on the run-loop thread after each successful
  // rebind.
  Binder(
      void* runtime, const char* service_name, bool is_android_service,
      std::function<void()> reconnect_callback = [] {});
  ~Binder();

  Binder(const Binder&) = delete;
  Binder& operator=(const Binder&) = delete;

  // Tries until the service is bound with a death listener (true), 300 s have passed or a shutdown interrupts (false).
  bool bind_to_service() ORVEL_EXCLUDES(m_mutex);

  // Binds the service again, after a pause. Run-loop thread.
  void on_binder_died() ORVEL_EXCLUDES(m_mutex);

  // Sends transaction `code` of the interface `descriptor` with the arguments of `writer`. The reply, behind its
  // exception code, belongs to the Binder until done(); null on any failure, which is logged, and for a remote
  // exception. Deliberately, a call that follows one without done() leaves the earlier request and reply allocated.
  [[nodiscard]] vesk_buffer* call(const char* descriptor, unsigned int code, const RequestWriter& writer = no_arguments)
      ORVEL_EXCLUDES(m_mutex);

  // The same on one connection only: empty, with nothing sent and nothing logged, when it is not the newest one any more.
  [[nodiscard]] std::optional<vesk_buffer*> call_on(Connection only, const char* descriptor, unsigned int code,
                                                    const RequestWriter& writer) ORVEL_EXCLUDES(m_mutex);

  // Frees the request and the reply, those of a failed call too. May be called again.
  void done() ORVEL_EXCLUDES(m_mutex);

  // Whether the service is bound.
  [[nodiscard]] bool good() ORVEL_EXCLUDES(m_mutex);

  // The newest connection, dead ones included. Inside a RequestWriter it is the one that carries the request. Takes no
  // lock.
  [[nodiscard]] Connection connection() const { return m_connection; }

  // Begins a request; false only for a null payload, other failures stick to the payload.
  static bool writeHeaders(vesk_payload* payload);

  // Reads the head of a reply: true, with the exception logged, when the service answered with one.
  static bool exceptionOccurred(vesk_buffer* buffer);

 private:
  friend class ReplyScope;

  std::unique_ptr<vesk::IpcHandle> look_up() const;
  vesk_buffer* call_locked(const char* descriptor, unsigned int code, const RequestWriter& writer)
      ORVEL_REQUIRES(m_mutex);
  void free_messages() ORVEL_REQUIRES(m_mutex);

  std::mutex m_transaction;
  std::mutex m_mutex;
  void* const m_runtime;
  const std::string m_service_name;
  const bool m_is_android_service;
  std::unique_ptr<vesk::IpcHandle> m_handle ORVEL_GUARDED_BY(m_mutex);  // null while unbound
  // Plain pointers, not owners: a call overwrites what nobody finished.
  vesk_payload* m_payload ORVEL_GUARDED_BY(m_mutex) = nullptr;
  vesk_buffer* m_buffer ORVEL_GUARDED_BY(m_mutex) = nullptr;
  std::atomic<Connection> m_connection{kNoConnection};  // changes under m_mutex
  const std::function<void()> m_reconnect_callback;
};

// Makes this thread the only one with a transaction on the Binder, from before its call() until the end of the scope,
// which ends the transaction. Without it another thread's done() would free the reply that this one reads.
class ReplyScope {
 public:
  explicit ReplyScope(Binder& binder) : m_binder(binder), m_lock(binder.m_transaction) {}
  ~ReplyScope() {
    if (!m_kept) m_binder.done();
  }

  ReplyScope(const ReplyScope&) = delete;
  ReplyScope& operator=(const ReplyScope&) = delete;

  // Leaves the request and the reply to the Binder, whose next call() forgets them.
  void keep() { m_kept = true; }

 private:
  const Disposal m_disposal;  // of the endpoints that end with the request
  Binder& m_binder;
  bool m_kept = false;
  const std::lock_guard<std::mutex> m_lock;
};

}  // namespace orvel::service_apis
