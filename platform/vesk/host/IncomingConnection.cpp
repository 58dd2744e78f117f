#include "IncomingConnection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iterator>
#include <utility>

namespace vesk {
namespace {

// A client waits for each answer, so more than a few owed on one connection are a flood.
constexpr unsigned int kMaxDeferred = 256;
// The other half of a channel's handshake is there in full; this is several times what it takes to read it.
constexpr int kMaxHandshakeSteps = 64;
constexpr const char* kCallSignatures[] = {"uay", "uayat", "uayath"};

bool is_unix_stream(int descriptor) {
  int domain = 0;
  int type = 0;
  socklen_t size = sizeof(int);
  return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX &&
         ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

bool read_numbers(sd_bus_message* message, std::vector<std::uint64_t>* numbers) {
  const void* data = nullptr;
  std::size_t size = 0;
  check(sd_bus_message_read_array(message, 't', &data, &size));
  const auto* first = static_cast<const std::uint64_t*>(data);
  const std::size_t count = size / sizeof(*first);
  if (count > kMaxMessageEndpoints) return false;
  numbers->assign(first, first + count);
  return true;
}

RemoteRef counted(vesk_remote* remote) {
  return {vesk_remote_acquire(remote), vesk_remote_release};
}

void tell_gone(vesk_remote& remote) {
  const auto gone = std::exchange(remote.gone, nullptr);
  if (gone != nullptr) report_throw("a notice", [&] { gone(remote.gone_context, &remote); });
}

// sd-bus has a second word for a peer that is gone.
int as_gone(int result) {
  return result == -ECONNRESET ? -EPIPE : result;
}

}  // namespace

std::shared_ptr<IncomingConnection> IncomingConnection::accept(Acceptor& acceptor, UniqueFd socket, pid_t peer) {
  std::shared_ptr<IncomingConnection> connection(new IncomingConnection(acceptor, peer));
  connection->m_bus = start_bus(std::move(socket), HandshakeRole::kAccepting, &on_message, connection.get());
  const auto on_end = [](void* ended) {
    auto* self = static_cast<IncomingConnection*>(ended);
    self->m_acceptor.remove(*self);
  };
  connection->m_watch.start(acceptor.loop(), connection->m_bus.get(), on_end, connection.get());
  return connection;
}

IncomingConnection::~IncomingConnection() = default;

bool IncomingConnection::has_hung_up() const {
  pollfd socket{sd_bus_get_fd(m_bus.get()), POLLRDHUP, 0};
  return ::poll(&socket, 1, 0) > 0;
}

void IncomingConnection::close(bool notify) {
  const auto keep_alive = shared_from_this();
  m_watch.stop();
  m_channel_watch.stop();
  m_bus.reset();
  m_channel.reset();
  const std::list<PendingCall> owed = std::exchange(m_pending, {});
  const auto remotes = std::exchange(m_remotes, {});
  if (!notify) return;
  for (const auto& [number, remote] : remotes) vesk_remote_acquire(remote);  // all, before a notice lets go of one
  for (const PendingCall& call : owed) complete(call, -EPIPE, nullptr);
  for (const auto& [number, remote] : remotes) tell_gone(*remote);
  for (const auto& [number, remote] : remotes) vesk_remote_release(remote);
}

int IncomingConnection::on_message(sd_bus_message* message, void* self, sd_bus_error*) {
  auto* connection = static_cast<IncomingConnection*>(self);
  const auto keep_alive = connection->shared_from_this();
  if (as_error_code([&] { return connection->handle(message) ? 1 : 0; }) != 1) connection->retire();
  return 1;
}

bool IncomingConnection::handle(sd_bus_message* message) {
  if (m_path.empty()) return is_call(message, kMemberOpen, "") && open(message);
  const char* path = sd_bus_message_get_path(message);
  if (path == nullptr || path != m_path) return false;
  if (is_call(message, kMemberTakeBack, "at")) return take_back(message);
  return is_call(message, kMemberCall, nullptr) && serve(message);
}

// A name that is not served any more ends the connection, so that its owner learns of it in either order.
bool IncomingConnection::open(sd_bus_message* message) {
  m_path = sd_bus_message_get_path(message);
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  m_opened_us = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
  return m_acceptor.endpoint(m_path) != nullptr;
}

bool IncomingConnection::serve(sd_bus_message* message) {
  const char* signature = sd_bus_message_get_signature(message, /*complete=*/1);
  if (std::none_of(std::begin(kCallSignatures), std::end(kCallSignatures),
                   [&](const char* allowed) { return std::strcmp(signature, allowed) == 0; })) {
    return false;
  }
  IncomingRequest request(*this, message);
  std::uint32_t code = 0;
  check(sd_bus_message_read_basic(message, 'u', &code));
  if (!read_bytes(message, &request.buffer.parcel) || !receive_remotes(message, &request.buffer.remotes)) return false;

  const EndpointRef endpoint = m_acceptor.endpoint(m_path);
  if (!endpoint) return false;
  const bool two_way = expects_reply(message);
  vesk_payload reply;
  if (const pid_t thread = thread_of(message); thread != 0) m_thread = thread;
  vesk_identity caller{m_peer, m_thread, two_way ? &request : nullptr};
  const int status = call_endpoint(endpoint.get(), code, &caller, &request.buffer, two_way ? &reply : nullptr);
  if (two_way && !request.is_deferred()) answer(message, request.buffer.remotes, status, &reply);
  return true;
}

bool IncomingConnection::receive_remotes(sd_bus_message* message, std::vector<RemoteRef>* remotes) {
  if (sd_bus_message_at_end(message, /*complete=*/1) > 0) return true;
  std::vector<std::uint64_t> numbers;
  if (!read_numbers(message, &numbers)) return false;
  int descriptor = -1;
  if (sd_bus_message_at_end(message, 1) == 0) {
    check(sd_bus_message_read_basic(message, 'h', &descriptor));  // stays the message's
    if (!accept_channel(descriptor)) return false;
  }
  if (!m_channel) return false;
  remotes->reserve(numbers.size());
  for (const std::uint64_t number : numbers) remotes->push_back(received(number));
  return true;
}

// The keeper's half of the handshake lies in the socket already, so this half is done without waiting.
bool IncomingConnection::accept_channel(int descriptor) {
  if (m_channel || !is_unix_stream(descriptor)) return false;
  UniqueFd socket(check_errno(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3)));
  check_errno(::fcntl(socket.get(), F_SETFL, O_NONBLOCK));
  BusPtr channel = start_bus(std::move(socket), HandshakeRole::kAccepting, &on_channel_message, this);
  for (int steps = 0; sd_bus_is_ready(channel.get()) <= 0; ++steps) {
    // A greeting that goes on for ever would keep the loop from all other connections.
    if (steps == kMaxHandshakeSteps || check(sd_bus_process(channel.get(), nullptr)) == 0) return false;
  }
  const auto on_end = [](void* self) { static_cast<IncomingConnection*>(self)->retire(); };
  m_channel = std::move(channel);
  m_channel_watch.start(m_acceptor.loop(), m_channel.get(), on_end, this);
  return true;
}

RemoteRef IncomingConnection::received(std::uint64_t number) {
  auto known = m_remotes.find(number);
  if (known == m_remotes.end()) {
    auto fresh = std::make_unique<vesk_remote>();
    fresh->connection = weak_from_this();
    fresh->pid = m_peer;
    fresh->number = number;
    known = m_remotes.emplace(number, fresh.get()).first;
    static_cast<void>(fresh.release());  // those who count it own it now
  }
  ++known->second->received;
  return counted(known->second);
}

// What calls brought that failed for their sender only, because their time was over when they were answered. It gets
// its references back, and a remote of which none is left is gone for those who hold it.
bool IncomingConnection::take_back(sd_bus_message* message) {
  std::vector<std::uint64_t> numbers;
  if (!read_numbers(message, &numbers)) return false;
  for (const std::uint64_t number : numbers) {
    const auto found = m_remotes.find(number);
    if (found == m_remotes.end() || found->second->received == 0) continue;  // on its way back already
    const RemoteRef remote = counted(found->second);
    give_back(number, 1);
    if (--remote->received != 0) continue;
    m_remotes.erase(found);
    remote->connection.reset();
    tell_gone(*remote);
  }
  return true;
}

void IncomingConnection::answer(sd_bus_message* call, const std::vector<RemoteRef>& remotes, int status,
                                const vesk_payload* reply) {
  if (!m_bus) return;
  // What fails for its sender has not been received: the sender takes the references back by itself.
  const bool too_long = reply != nullptr && reply->parcel.bytes().size() > kMaxMessageBytes;
  if (status != 0 || too_long) {
    for (const RemoteRef& remote : remotes) --remote->received;
  }
  if (send_answer(call, status, reply, m_answers) != 0) retire();
  m_watch.update();
}

vesk_deferred* IncomingConnection::defer(sd_bus_message* call, const std::vector<RemoteRef>& remotes) {
  if (m_deferred == kMaxDeferred) return nullptr;
  auto deferred = std::make_unique<vesk_deferred>();
  deferred->connection = weak_from_this();
  deferred->call.reset(sd_bus_message_ref(call));
  deferred->remotes = remotes;
  ++m_deferred;
  return deferred.release();
}

void IncomingConnection::finish_deferred(vesk_deferred& deferred, int status, const vesk_payload* reply) {
  --m_deferred;
  answer(deferred.call.get(), deferred.remotes, status, reply);
}

vesk_deferred* IncomingRequest::defer() {
  if (m_deferred) return nullptr;
  vesk_deferred* deferred = m_connection.defer(m_call, buffer.remotes);
  m_deferred = deferred != nullptr;
  return deferred;
}

// ---- Calling the remotes ----

// The keeper sends nothing but answers here, and its hang-up ends the connection. An answer to a call that is pending
// goes to on_remote_answer, so one that comes here is late or was never asked for.
int IncomingConnection::on_channel_message(sd_bus_message* message, void* self, sd_bus_error*) {
  auto* connection = static_cast<IncomingConnection*>(self);
  std::uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  const bool is_answer = type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR;
  if (is_answer && connection->m_late_answers > 0) {
    --connection->m_late_answers;
  } else {
    connection->retire();
  }
  return 1;
}

MessagePtr IncomingConnection::new_remote_call(const vesk_remote& remote, unsigned int code, const Parcel& request,
                                               bool two_way) {
  MessagePtr message = new_call(m_channel.get(), kCallbackPath, kMemberCall, two_way);
  check(sd_bus_message_append(message.get(), "tu", remote.number, code));
  append_bytes(message.get(), request);
  return message;
}

int IncomingConnection::call_remote(const vesk_remote& remote, unsigned int code, const Parcel& request) {
  if (!m_channel) return -EPIPE;
  const MessagePtr message = new_remote_call(remote, code, request, /*two_way=*/false);
  const int result = m_callbacks.send(m_channel.get(), message.get(), request.bytes().size());
  m_channel_watch.update();
  return as_gone(result);
}

int IncomingConnection::call_remote(const vesk_remote& remote, unsigned int code, const Parcel& request,
                                    unsigned int timeout_ms, vesk_completion completion, void* context) {
  if (!m_channel) return -EPIPE;
  const std::size_t size = request.bytes().size();
  if (!m_callbacks.admits(m_channel.get(), size)) return -ENOBUFS;
  const MessagePtr message = new_remote_call(remote, code, request, /*two_way=*/true);
  const auto pending = m_pending.emplace(m_pending.end());
  pending->connection = this;
  pending->self = pending;
  pending->completion = completion;
  pending->context = context;
  sd_bus_slot* slot = nullptr;
  const std::uint64_t timeout_usec = std::max<std::uint64_t>(timeout_ms, 1) * 1000;  // sd-bus takes 0 for its default
  const int result =
      sd_bus_call_async(m_channel.get(), &slot, message.get(), &on_remote_answer, &*pending, timeout_usec);
  m_channel_watch.update();
  if (result < 0) {
    m_pending.erase(pending);
    return as_gone(result);
  }
  pending->slot.reset(slot);
  m_callbacks.sent(size);
  return 0;
}

void IncomingConnection::complete(const PendingCall& call, int error, vesk_buffer* reply) {
  report_throw("a completion", [&] { call.completion(call.context, error, reply); });
}

int IncomingConnection::on_remote_answer(sd_bus_message* message, void* pending, sd_bus_error*) {
  auto* call = static_cast<PendingCall*>(pending);
  IncomingConnection& connection = *call->connection;
  const auto keep_alive = connection.shared_from_this();
  std::list<PendingCall> done;
  done.splice(done.end(), connection.m_pending, call->self);
  vesk_buffer reply;
  int status = -EPROTO;
  if (sd_bus_message_is_method_error(message, nullptr) > 0) {
    // sd-bus says the same of a call whose time has passed and of one whose connection has ended.
    const bool lives = sd_bus_is_open(sd_bus_message_get_bus(message)) > 0;
    status = lives && sd_bus_message_get_errno(message) == ETIMEDOUT ? -ETIMEDOUT : -EPIPE;
    if (status == -ETIMEDOUT) ++connection.m_late_answers;
  } else if (!read_answer(message, &status, &reply.parcel)) {
    connection.retire();
  }
  complete(*call, status, status == 0 ? &reply : nullptr);
  return 1;
}

// The last reference is gone: the keeper gets back exactly what has come, so that this cannot overtake a new sending.
void IncomingConnection::forget(vesk_remote& remote) {
  m_remotes.erase(remote.number);
  if (m_channel && remote.received != 0) give_back(remote.number, remote.received);
}

void IncomingConnection::give_back(std::uint64_t number, std::uint32_t count) {
  const int result = as_error_code([&] {
    const MessagePtr message = new_call(m_channel.get(), kCallbackPath, kMemberRelease, /*expect_reply=*/false);
    check(sd_bus_message_append(message.get(), "tu", number, count));
    return m_callbacks.send(m_channel.get(), message.get(), 0);
  });
  m_channel_watch.update();
  if (result != 0) retire();  // a reference that cannot be given back would be held for ever
}

}  // namespace vesk
