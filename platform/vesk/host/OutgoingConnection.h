// One connection from this process to a service, made by a lookup and named by a handle.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Dispatch.h"
#include "Exports.h"
#include "Loop.h"
#include "ThreadAnnotations.h"
#include "Wire.h"
#include "vesk/message/Message.h"

namespace vesk {

// Calls run on the calling thread, which does its own I/O; the loop only watches for hang-up and finishes what a caller
// did not wait for. A thread that lets go of m_mutex while something is left to be written or read asks for a pump(),
// after it has let go: a pump() that could not have the lock leaves everything to its holder.
//
//   open() --> in use --+--> hung up: callbacks drained, notices delivered, exports released --+--> closed
//                       +--> close(), the last reference to the handle is gone ----------------+
//
// No lock is held while something outside this library is called. m_mutex is taken before m_links_mutex.
class OutgoingConnection : public std::enable_shared_from_this<OutgoingConnection> {
 public:
  // What its owner gives each connection; it outlives them.
  struct Surroundings {
    Loop& loop;
    std::chrono::milliseconds call_limit;
    // The service has died and every link has heard of it; `noticed` says whether there was one. On the loop.
    std::function<void(const vesk_handle& handle, bool noticed)> on_dead;
  };

  // Connects to the service called `name` without waiting. Throws std::system_error as connect_to_service().
  static std::shared_ptr<OutgoingConnection> open(const Surroundings& surroundings, const char* name);

  ~OutgoingConnection();
  OutgoingConnection(const OutgoingConnection&) = delete;
  OutgoingConnection& operator=(const OutgoingConnection&) = delete;

  [[nodiscard]] pid_t peer() const { return m_peer; }

  // Called once, when the handle exists: from here on the loop watches.
  void watch(vesk_handle handle);

  // Before watch(): gives the service a moment to answer the handshake, and says whether it has, be it with what breaks
  // the rules. Throws -EAGAIN for one that has hung up instead, because it has no room for one more or is just ending.
  [[nodiscard]] bool try_handshake();

  // One transaction; any thread. Gives the peer's status, or what went wrong. On success the peer holds the endpoints.
  // A call whose time is over fails alone: its answer is thrown away when it comes, and what the peer then holds is
  // asked back.
  int call(unsigned int code, const Parcel& request, const std::vector<EndpointRef>& endpoints, Parcel& reply);

  // A one-way call; any thread, never waits. -ENOBUFS when the peer reads too slowly.
  int send(unsigned int code, const Parcel& request);

  int link_to_death(vesk_death_callback* callback);
  void unlink_to_death(vesk_death_callback* callback);

  // Makes a call in progress fail, and later ones too.
  void abort_call();

  // The handle is gone: closes the connection, drops the links without a notice and releases what was exported.
  void close();

 private:
  using Deadline = std::chrono::steady_clock::time_point;

  OutgoingConnection(const Surroundings& surroundings, const char* name, UniqueFd socket);

  // A transaction's share of what outlives it.
  struct Attempt {
    std::vector<std::uint64_t> numbers;              // of the endpoints that go along
    std::vector<EndpointRef> given_up;               // of these, once the time is over; dropped without a lock
    bool is_late = false;                            // the request has left, and its answer has not come
    std::shared_ptr<CallbackChannel> fresh_channel;  // that went along, for the loop
  };
  // What the thread that held m_mutex still has to do when it has let go.
  struct Leftover {
    bool wants_pump = false;
    // Endpoints of late answers that say that their call has failed at the peer too.
    std::vector<std::uint64_t> settled;
  };

  MessagePtr new_request(unsigned int code, const Parcel& request, bool expect_reply) VESK_REQUIRES(m_mutex);
  int transact(unsigned int code, const Parcel& request, Attempt& attempt, Parcel& reply) VESK_REQUIRES(m_mutex);
  MessagePtr exchange(sd_bus_message* call, std::size_t size, Deadline deadline) VESK_REQUIRES(m_mutex);
  void give_up_answer(Attempt& attempt) VESK_REQUIRES(m_mutex);
  // These two are false once the deadline has passed, and throw what ends the connection.
  [[nodiscard]] bool finish_handshake(Deadline deadline) VESK_REQUIRES(m_mutex);
  [[nodiscard]] bool make_progress(Deadline deadline) VESK_REQUIRES(m_mutex);
  [[nodiscard]] bool advance() VESK_REQUIRES(m_mutex);
  void take_message(sd_bus_message* message) VESK_REQUIRES(m_mutex);
  void take_late_answer(sd_bus_message* message, const std::vector<std::uint64_t>& numbers) VESK_REQUIRES(m_mutex);
  Leftover take_leftover() VESK_REQUIRES(m_mutex);
  void finish(Leftover leftover);
  // Called inside sd_bus_process, which only a holder of the lock calls.
  static int on_message(sd_bus_message* message, void* self, sd_bus_error* error) VESK_NO_ANALYSIS;
  void break_connection() VESK_REQUIRES(m_mutex);
  void hang_up();

  void on_socket_event(std::uint32_t events);
  void want_pump();
  void pump();
  void finish_death();
  [[nodiscard]] bool deliver_notices();
  void deliver_late_notices();
  void end_dead_lookup();
  void release_watch();
  std::shared_ptr<CallbackChannel> channel();

  const Surroundings& m_owner;
  const std::string m_path;
  UniqueFd m_watched;  // the connection's socket once more, for the loop and for shutdown(2) from any thread
  pid_t m_peer = 0;
  vesk_handle m_handle{};
  ExportTable m_exports;
  std::atomic<int> m_calls_in_progress{0};
  std::atomic<bool> m_pump_wanted{false};  // a pump() is posted and has not looked yet

  std::mutex m_mutex;                                       // held across a transaction
  BusPtr m_bus VESK_GUARDED_BY(m_mutex);                    // null once the connection is closed or broken
  std::uint64_t m_awaited VESK_GUARDED_BY(m_mutex) = 0;     // the cookie of the call in progress
  pid_t m_told_thread VESK_GUARDED_BY(m_mutex) = 0;         // the last of which the peer has heard
  MessagePtr m_answer VESK_GUARDED_BY(m_mutex);             // to that call
  bool m_unasked_message VESK_GUARDED_BY(m_mutex) = false;  // the peer sent something that is not an answer
  // The calls whose time was over, by their cookies, and the endpoints that went with them; the newest ones.
  std::map<std::uint64_t, std::vector<std::uint64_t>> m_late VESK_GUARDED_BY(m_mutex);
  std::uint64_t m_forgotten VESK_GUARDED_BY(m_mutex) = 0;  // the highest cookie that fell out of there
  std::vector<std::uint64_t> m_settled VESK_GUARDED_BY(m_mutex);
  std::shared_ptr<CallbackChannel> m_channel VESK_GUARDED_BY(m_mutex);
  Outbox m_outbox VESK_GUARDED_BY(m_mutex);

  std::mutex m_links_mutex;
  std::list<DeathLink> m_links VESK_GUARDED_BY(m_links_mutex);
  bool m_dead VESK_GUARDED_BY(m_links_mutex) = false;
  bool m_noticed VESK_GUARDED_BY(m_links_mutex) = false;  // a link has heard of the death
  bool m_closed VESK_GUARDED_BY(m_links_mutex) = false;

  // The loop's thread only.
  SourcePtr m_watch;
  std::shared_ptr<OutgoingConnection> m_self;  // while the loop watches
};

}  // namespace vesk
