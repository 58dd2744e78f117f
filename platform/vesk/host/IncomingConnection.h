// A connection that another process made to this one: its calls, and the endpoints that it sends.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "BusWatch.h"
#include "Dispatch.h"
#include "Loop.h"
#include "Wire.h"
#include "vesk/message/Message.h"

namespace vesk {
class IncomingConnection;
}

// An endpoint of another process. It outlives its connection for as long as someone holds it. Run-loop thread.
struct vesk_remote {
  std::weak_ptr<vesk::IncomingConnection> connection;
  pid_t pid = 0;
  std::uint64_t number = 0;    // as the keeper counts its exports
  std::uint32_t received = 0;  // sendings that have not been given back
  unsigned int references = 0;
  void (*gone)(void* context, vesk_remote* remote) = nullptr;
  void* gone_context = nullptr;
};

// An answer that is owed.
struct vesk_deferred {
  std::weak_ptr<vesk::IncomingConnection> connection;
  vesk::MessagePtr call;
  std::vector<vesk::RemoteRef> remotes;  // those of the request: a failed call gives them back
};

namespace vesk {

// One connection that was accepted. Run-loop thread.
//
//   accepted --Open(name)--> calls --hang-up, a broken rule, or its name withdrawn--> retired --> gone
class IncomingConnection : public std::enable_shared_from_this<IncomingConnection> {
 public:
  // What a connection asks of the one who accepted it, which outlives it.
  class Acceptor {
   public:
    virtual ~Acceptor() = default;
    virtual Loop& loop() = 0;
    // The endpoint published under an object path, or null.
    virtual EndpointRef endpoint(const std::string& path) = 0;
    // Closes a connection that is out of service and tells those who wait for something from it.
    virtual void remove(IncomingConnection& connection) = 0;
  };

  static std::shared_ptr<IncomingConnection> accept(Acceptor& acceptor, UniqueFd socket, pid_t peer);
  ~IncomingConnection();
  IncomingConnection(const IncomingConnection&) = delete;
  IncomingConnection& operator=(const IncomingConnection&) = delete;

  [[nodiscard]] pid_t peer() const { return m_peer; }
  [[nodiscard]] bool is_open() const { return m_bus != nullptr; }
  [[nodiscard]] bool has_hung_up() const;  // whether the loop has noticed or not; of an open one
  [[nodiscard]] const std::string& path() const { return m_path; }
  [[nodiscard]] std::uint64_t opened_us() const { return m_opened_us; }  // since 1970

  // Closes both directions. With `notify`, completions that are owed get -EPIPE and those who asked hear that the
  // remotes are gone.
  void close(bool notify);

  void answer(sd_bus_message* call, const std::vector<RemoteRef>& remotes, int status, const vesk_payload* reply);
  vesk_deferred* defer(sd_bus_message* call, const std::vector<RemoteRef>& remotes);
  void finish_deferred(vesk_deferred& deferred, int status, const vesk_payload* reply);
  // Takes the connection out of service, at the end of what it is doing.
  void retire() { m_watch.end_soon(); }

  int call_remote(const vesk_remote& remote, unsigned int code, const Parcel& request);
  int call_remote(const vesk_remote& remote, unsigned int code, const Parcel& request, unsigned int timeout_ms,
                  vesk_completion completion, void* context);
  void forget(vesk_remote& remote);

 private:
  // A two-way call of a remote that has not been completed.
  struct PendingCall {
    IncomingConnection* connection = nullptr;
    std::list<PendingCall>::iterator self;
    SlotPtr slot;
    vesk_completion completion = nullptr;
    void* context = nullptr;
  };

  IncomingConnection(Acceptor& acceptor, pid_t peer) : m_acceptor(acceptor), m_peer(peer) {}

  static int on_message(sd_bus_message* message, void* self, sd_bus_error* error);
  static int on_channel_message(sd_bus_message* message, void* self, sd_bus_error* error);
  static int on_remote_answer(sd_bus_message* message, void* pending, sd_bus_error* error);
  static void complete(const PendingCall& call, int error, vesk_buffer* reply);
  bool handle(sd_bus_message* message);
  bool open(sd_bus_message* message);
  bool serve(sd_bus_message* message);
  bool take_back(sd_bus_message* message);
  bool receive_remotes(sd_bus_message* message, std::vector<RemoteRef>* remotes);
  bool accept_channel(int descriptor);
  RemoteRef received(std::uint64_t number);
  void give_back(std::uint64_t number, std::uint32_t count);
  MessagePtr new_remote_call(const vesk_remote& remote, unsigned int code, const Parcel& request, bool two_way);

  Acceptor& m_acceptor;
  pid_t m_peer;
  pid_t m_thread = 0;  // of the peer's, that made the last call of which that is known
  std::string m_path;  // of the service it was opened for; empty before that
  std::uint64_t m_opened_us = 0;
  unsigned int m_deferred = 0;
  std::unordered_map<std::uint64_t, vesk_remote*> m_remotes;  // borrowed: those who count them own them
  std::list<PendingCall> m_pending;
  unsigned int m_late_answers = 0;  // that timed-out calls are still due
  Outbox m_answers;
  Outbox m_callbacks;
  BusPtr m_channel;  // to the keeper of the remotes; null before the first one came
  BusPtr m_bus;      // null once closed
  // Last: they must stop before the buses close their descriptors.
  BusWatch m_channel_watch;
  BusWatch m_watch;
};

// The request that an endpoint is being called for.
class IncomingRequest {
 public:
  IncomingRequest(IncomingConnection& connection, sd_bus_message* call) : m_connection(connection), m_call(call) {}

  // Null when the call expects no answer or has been deferred before.
  vesk_deferred* defer();
  [[nodiscard]] bool is_deferred() const { return m_deferred; }

  vesk_buffer buffer;

 private:
  IncomingConnection& m_connection;
  sd_bus_message* m_call;
  bool m_deferred = false;
};

}  // namespace vesk
