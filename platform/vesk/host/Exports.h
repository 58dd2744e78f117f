// The endpoints of this process that were sent over one outgoing connection, and the channel on which they are called.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "BusWatch.h"
#include "Loop.h"
#include "ThreadAnnotations.h"
#include "Wire.h"
#include "vesk/message/Message.h"

namespace vesk {

// Which endpoints the peer holds, and how often each was sent. Any thread.
class ExportTable {
 public:
  // Counts one more sending of each, in order, and gives the numbers by which the peer knows them. The same endpoint
  // has the same number for as long as the peer holds it; numbers are not used again. Throws -EPIPE after close().
  std::vector<std::uint64_t> add(const std::vector<EndpointRef>& endpoints);

  // One callback of an endpoint, which lives at least as long. On the loop's thread, one at a time.
  class Callback {
   public:
    Callback(ExportTable& exports, std::uint64_t number);
    ~Callback();
    Callback(const Callback&) = delete;
    Callback& operator=(const Callback&) = delete;

    // Null for a number that the peer does not hold.
    [[nodiscard]] vesk_endpoint* endpoint() const { return m_endpoint.get(); }

   private:
    ExportTable& m_exports;
    EndpointRef m_endpoint;
  };

  // The peer gives back `count` sendings; false, and nothing changed, when it never held so many. What was taken back
  // or given up meanwhile may cross its message, so that a number that is not known any more changes nothing.
  bool give_back(std::uint64_t number, std::uint32_t count);

  // A call has failed, and its sending counts no more on either side.
  void take_back(std::uint64_t number);

  // A call has run out of time: for its caller it has failed, but the peer may count its sending all the same. Gives
  // the endpoint where no other sending keeps it, for the caller to drop without a lock.
  [[nodiscard]] EndpointRef give_up(std::uint64_t number);

  // Such a call has failed at the peer too.
  void settle(std::uint64_t number);

  // Lets go of everything, for good. Waits for a callback in progress, so that its endpoint is released too; from
  // inside that callback the release comes when it returns.
  void close();

 private:
  struct Export {
    EndpointRef endpoint;
    std::uint32_t sent = 0;
    std::uint32_t given_up = 0;  // among those sent, and always fewer
  };

  template <typename Change>
  EndpointRef change(std::uint64_t number, const Change& change) VESK_REQUIRES(m_mutex);

  std::mutex m_mutex;
  std::unordered_map<std::uint64_t, Export> m_exports VESK_GUARDED_BY(m_mutex);
  std::unordered_map<const vesk_endpoint*, std::uint64_t> m_numbers VESK_GUARDED_BY(m_mutex);
  std::uint64_t m_last_number VESK_GUARDED_BY(m_mutex) = 0;
  bool m_closed VESK_GUARDED_BY(m_mutex) = false;
  std::thread::id m_calling VESK_GUARDED_BY(m_mutex);  // the thread inside a callback
  std::condition_variable_any m_called;                // it has left
};

// The keeper's end of a callback channel.
//
//   create() --first endpoint's call ended--> finish_handshake() --> attach() on the loop --> close()
//
// The handshake never waits for a run loop: this half of it lies in the socket before the reference leaves, and the
// receiver answers before it dispatches the request.
//
// The channel keeps the receiver's end open too. Otherwise the first answer to a receiver that has died would fail, and
// sd-bus would throw away the messages behind the one that is answered. That the receiver is gone shows on the
// connection, which it closes together with the channel.
class CallbackChannel : public std::enable_shared_from_this<CallbackChannel> {
 public:
  // `on_broken` is called on the loop when the peer sent what it must not.
  static std::shared_ptr<CallbackChannel> create(ExportTable& exports, pid_t peer, std::function<void()> on_broken);

  // What travels to the receiver; stays the channel's.
  [[nodiscard]] int peer_end() const { return m_peer_end.get(); }

  // On the sending thread, once the call is over. False when the receiver has not done its half yet, which it has
  // before it answers; the loop then waits for it.
  [[nodiscard]] bool finish_handshake();

  // From here on the loop's thread owns the channel.
  void attach(const Loop& loop);

  // Delivers everything that has arrived, and takes no more from then on. False when the loop is winding down and some
  // may be left.
  bool drain(const Loop& loop);

  // Tells the peer at once; on the owning thread.
  void close();

 private:
  CallbackChannel(ExportTable& exports, pid_t peer, std::function<void()> on_broken)
      : m_exports(exports), m_peer(peer), m_on_broken(std::move(on_broken)) {}

  static int on_message(sd_bus_message* message, void* self, sd_bus_error* error);
  [[nodiscard]] bool handle(sd_bus_message* message);
  [[nodiscard]] bool deliver(sd_bus_message* message);

  ExportTable& m_exports;
  pid_t m_peer;
  std::function<void()> m_on_broken;
  Outbox m_answers;
  UniqueFd m_peer_end;
  BusPtr m_bus;
  BusWatch m_watch;  // Last: it must stop before the bus closes its descriptor.
};

}  // namespace vesk
