#include "OutgoingConnection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <utility>

#include "Descriptors.h"
#include "Dispatch.h"
#include "Runtime.h"
#include "RuntimeDirectory.h"

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;

// A peer that lives has answered long before. The loop's thread has others to serve meanwhile.
constexpr std::chrono::milliseconds kHandshakePatience{50};
constexpr std::chrono::milliseconds kHandshakePatienceOfLoop{10};

// Marks a call as in progress before it asks whether the runtime is shut down, so that vesk_shutdown either sees the
// mark or is seen.
class CallMark {
 public:
  explicit CallMark(std::atomic<int>& calls) : m_calls(calls) { ++m_calls; }
  ~CallMark() { --m_calls; }
  CallMark(const CallMark&) = delete;
  CallMark& operator=(const CallMark&) = delete;

 private:
  std::atomic<int>& m_calls;
};

// A service that hangs up before it has let this process in has no room, or is just ending.
int as_refusal(int result) {
  return result == -ECONNRESET || result == -EPIPE ? -EAGAIN : result;
}

}  // namespace

std::shared_ptr<OutgoingConnection> OutgoingConnection::open(Runtime& runtime, const char* name) {
  const std::string file = escaped_name(name);
  const UniqueFd directory = open_runtime_directory();
  std::shared_ptr<OutgoingConnection> connection;
  check(as_refusal(as_error_code([&] {
    connection.reset(new OutgoingConnection(runtime, name, connect_to_service(directory.get(), file)));
    return 0;
  })));
  return connection;
}

OutgoingConnection::OutgoingConnection(Runtime& runtime, const char* name, UniqueFd socket)
    : m_runtime(runtime), m_path(object_path(name)) {
  m_watched.reset(check_errno(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 3)));
  remember_descriptor(m_watched.get());
  ucred peer{};
  socklen_t size = sizeof(peer);
  check_errno(::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size));
  m_peer = peer.pid;
  m_bus = start_bus(std::move(socket), HandshakeRole::kConnecting, &on_message, this);
  const MessagePtr open = new_call(m_bus.get(), m_path.c_str(), kMemberOpen, /*expect_reply=*/false);
  check(sd_bus_send(m_bus.get(), open.get(), nullptr));
}

OutgoingConnection::~OutgoingConnection() = default;

void OutgoingConnection::watch(vesk_handle handle) {
  m_handle = handle;
  m_runtime.loop().post([self = shared_from_this()] {
    {
      const std::lock_guard lock(self->m_links_mutex);
      if (self->m_closed) return;
    }
    const auto on_event = [](sd_event_source*, int, std::uint32_t events, void* connection) {
      static_cast<OutgoingConnection*>(connection)->on_socket_event(events);
      return 0;
    };
    sd_event_source* source = nullptr;
    // Edge-triggered while the handshake is pending: a caller may be reading the same socket.
    if (sd_event_add_io(self->m_runtime.loop().event(), &source, self->m_watched.get(), EPOLLIN | EPOLLRDHUP | EPOLLET,
                        on_event, self.get()) < 0) {
      // A death that could not be noticed is worse than one that did not happen.
      self->hang_up();
      self->m_runtime.loop().post_callback([self] { self->finish_death(); });
      return;
    }
    self->m_watch.reset(source);
    self->m_self = self;
    self->pump();  // the handshake may have been begun
  });
}

bool OutgoingConnection::try_handshake() {
  const int result = as_error_code([&] {
    const std::lock_guard lock(m_mutex);
    const bool in_loop = m_runtime.loop().is_this_thread();
    const Deadline deadline = Clock::now() + (in_loop ? kHandshakePatienceOfLoop : kHandshakePatience);
    finish_handshake(deadline);
    // The message that says which service is meant has waited for that.
    std::uint64_t queued = 0;
    while (check(sd_bus_get_n_queued_write(m_bus.get(), &queued)) >= 0 && queued != 0) make_progress(deadline);
    return 0;
  });
  if (result == -ETIMEDOUT) return false;
  check(as_refusal(result));
  return true;
}

int OutgoingConnection::call(unsigned int code, const Parcel& request, const std::vector<EndpointRef>& endpoints,
                             Parcel& reply) {
  if (request.error() != 0) return request.error();
  if (request.bytes().size() > kMaxMessageBytes || endpoints.size() > kMaxMessageEndpoints) return -EMSGSIZE;
  // The loop would wait for itself.
  if (m_peer == ::getpid() && m_runtime.loop().is_this_thread()) return -EDEADLK;
  const CallMark mark(m_calls_in_progress);
  if (m_runtime.loop().is_stopped()) return -ESHUTDOWN;

  std::vector<std::uint64_t> numbers;
  std::shared_ptr<CallbackChannel> fresh_channel;
  const int status = as_error_code([&] {
    if (!endpoints.empty()) numbers = m_exports.add(endpoints);
    const std::lock_guard lock(m_mutex);
    if (!m_bus) return -EPIPE;
    try {
      return transact(code, request, numbers, reply, &fresh_channel);
    } catch (...) {
      break_connection();
      throw;
    }
  });
  if (fresh_channel) {
    m_runtime.loop().post(
        [self = shared_from_this(), fresh_channel] { fresh_channel->attach(self->m_runtime.loop()); });
  }
  if (status != 0) {
    for (const std::uint64_t number : numbers) m_exports.give_back(number, 1);
    if (m_runtime.loop().is_stopped()) return -ESHUTDOWN;
  }
  return status;
}

int OutgoingConnection::transact(unsigned int code, const Parcel& request, const std::vector<std::uint64_t>& numbers,
                                 Parcel& reply, std::shared_ptr<CallbackChannel>* fresh_channel) {
  const Deadline deadline = Clock::now() + m_runtime.call_limit();
  finish_handshake(deadline);

  const MessagePtr message = new_call(m_bus.get(), m_path.c_str(), kMemberCall, /*expect_reply=*/true);
  check(sd_bus_message_append_basic(message.get(), 'u', &code));
  append_bytes(message.get(), request);
  if (!numbers.empty()) {
    check(sd_bus_message_append_array(message.get(), 't', numbers.data(), numbers.size() * sizeof(numbers[0])));
  }
  std::shared_ptr<CallbackChannel> channel;
  if (!numbers.empty() && !m_channel) {
    const auto on_broken = [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->hang_up();
    };
    UniqueFd peer_end;
    channel = CallbackChannel::create(m_exports, m_peer, on_broken, &peer_end);
    check(sd_bus_message_append(message.get(), "h", peer_end.get()));  // keeps a descriptor of its own
  }

  const MessagePtr answer = exchange(message.get(), deadline);
  if (channel) {
    channel->finish_handshake();
    m_channel = channel;
    *fresh_channel = std::move(channel);
  }
  int status = 0;
  if (m_unasked_message || !read_answer(answer.get(), &status, &reply)) check(-EPROTO);
  return status;
}

// What sd_bus_call does, except that a signal handler of the process does not end it.
MessagePtr OutgoingConnection::exchange(sd_bus_message* call, Deadline deadline) {
  m_answer.reset();
  check(sd_bus_send(m_bus.get(), call, &m_awaited));
  while (!m_answer && !m_unasked_message) make_progress(deadline);
  m_awaited = 0;
  return std::move(m_answer);
}

// The peer sends nothing but the answer that is waited for.
int OutgoingConnection::on_message(sd_bus_message* message, void* self, sd_bus_error*) {
  // sd-bus's own word for a hang-up, which is no fault of the peer's.
  if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) return -ECONNRESET;
  static_cast<OutgoingConnection*>(self)->take_message(message);
  return 1;
}

void OutgoingConnection::take_message(sd_bus_message* message) {
  std::uint64_t cookie = 0;
  if (m_awaited != 0 && sd_bus_message_get_reply_cookie(message, &cookie) >= 0 && cookie == m_awaited) {
    m_answer.reset(sd_bus_message_ref(message));
  } else {
    m_unasked_message = true;
  }
}

int OutgoingConnection::send(unsigned int code, const Parcel& request) {
  if (m_runtime.loop().is_stopped()) return -ESHUTDOWN;
  const int result = as_error_code([&] {
    const std::lock_guard lock(m_mutex);
    if (!m_bus) return -EPIPE;
    const MessagePtr message = new_call(m_bus.get(), m_path.c_str(), kMemberCall, /*expect_reply=*/false);
    check(sd_bus_message_append_basic(message.get(), 'u', &code));
    append_bytes(message.get(), request);
    return m_outbox.send(m_bus.get(), message.get(), request.bytes().size());
  });
  if (result == 0) m_runtime.loop().post([self = shared_from_this()] { self->pump(); });
  return result;
}

// sd-bus itself would wait 90 s for a process that accepts the connection and then says nothing.
void OutgoingConnection::finish_handshake(Deadline deadline) {
  while (sd_bus_is_ready(m_bus.get()) <= 0) make_progress(deadline);
}

// Reads or writes once, or waits until that is possible. Throws -ETIMEDOUT at the deadline, also when bytes come in all the
// time that never make an answer.
void OutgoingConnection::make_progress(Deadline deadline) {
  const bool progress = check(sd_bus_process(m_bus.get(), nullptr)) > 0;
  if (m_answer) return;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  if (left <= 0) check(-ETIMEDOUT);
  if (progress) return;
  pollfd socket{m_watched.get(), static_cast<short>(check(sd_bus_get_events(m_bus.get()))), 0};
  if (::poll(&socket, 1, static_cast<int>(std::min<std::int64_t>(left, INT_MAX))) < 0 && errno != EINTR) check(-errno);
}

void OutgoingConnection::break_connection() {
  m_bus.reset();
  hang_up();
}

// The peer and a call in progress notice at once; the loop sees the hang-up and does the rest.
void OutgoingConnection::hang_up() {
  ::shutdown(m_watched.get(), SHUT_RDWR);
}

int OutgoingConnection::link_to_death(vesk_death_callback* callback) {
  std::list<DeathLink> link;
  link.emplace_back(callback);
  {
    const std::lock_guard lock(m_links_mutex);
    if (m_closed) return -EINVAL;
    m_links.splice(m_links.end(), link);
    if (!m_dead) return 0;
  }
  m_runtime.loop().post_callback([self = shared_from_this()] { self->deliver_late_notices(); });
  return 0;
}

void OutgoingConnection::unlink_to_death(vesk_death_callback* callback) {
  std::list<DeathLink> unlinked;  // outlives the lock: releasing calls out
  const std::lock_guard lock(m_links_mutex);
  for (auto at = m_links.begin(); at != m_links.end();) {
    const auto link = at++;
    if (link->callback() == callback) unlinked.splice(unlinked.end(), m_links, link);
  }
}

void OutgoingConnection::abort_call() {
  if (m_calls_in_progress != 0) hang_up();
}

void OutgoingConnection::close() {
  std::list<DeathLink> links;
  {
    const std::lock_guard lock(m_links_mutex);
    m_closed = true;
    links.swap(m_links);
  }
  // After the links are gone, or the loop would take this for a death; before the lock, which a call in progress holds.
  hang_up();
  {
    const std::lock_guard lock(m_mutex);
    m_bus.reset();
  }
  links.clear();
  m_exports.close();
  m_runtime.loop().post([self = shared_from_this()] { self->release_watch(); });
}

void OutgoingConnection::on_socket_event(std::uint32_t events) {
  const auto keep_alive = shared_from_this();
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) == 0) return pump();
  m_watch.reset();
  finish_death();
}

// Brings the handshake and what was sent one-way forward without waiting. A caller that holds the connection does it
// anyway.
void OutgoingConnection::pump() {
  if (!m_watch) return;
  if (!m_mutex.try_lock()) {
    // Whoever holds it brings it forward, and each of its answers would wake this thread for nothing.
    sd_event_source_set_io_events(m_watch.get(), EPOLLRDHUP);
    return;
  }
  const std::lock_guard lock(m_mutex, std::adopt_lock);
  if (!m_bus) return;
  int result = 0;
  do {
    result = sd_bus_process(m_bus.get(), nullptr);
  } while (result > 0);
  std::uint64_t queued = 0;
  if (result < 0 || m_unasked_message || sd_bus_get_n_queued_write(m_bus.get(), &queued) < 0) return break_connection();
  std::uint32_t events = EPOLLRDHUP;
  if (sd_bus_is_ready(m_bus.get()) <= 0) events |= EPOLLIN | EPOLLET;
  if (queued != 0) events |= EPOLLOUT;
  sd_event_source_set_io_events(m_watch.get(), events);
}

// Everything the peer sent before it went is delivered before the word that it is gone. Each step may be the last one
// before the loop winds down; the next run goes on from there.
void OutgoingConnection::finish_death() {
  const auto keep_alive = shared_from_this();
  const auto callbacks = channel();
  const bool drained = !callbacks || callbacks->drain(m_runtime.loop());
  if (drained) {
    {
      const std::lock_guard lock(m_mutex);
      m_bus.reset();
    }
    const std::lock_guard lock(m_links_mutex);
    m_dead = true;
  }
  if (!drained || !deliver_notices()) {
    return m_runtime.loop().post_callback([keep_alive] { keep_alive->finish_death(); });
  }
  m_exports.close();
  release_watch();
  end_dead_lookup();
}

void OutgoingConnection::end_dead_lookup() {
  bool noticed = false;
  {
    const std::lock_guard lock(m_links_mutex);
    noticed = m_noticed;
  }
  m_runtime.end_dead_lookup(m_handle, noticed);
}

bool OutgoingConnection::deliver_notices() {
  while (true) {
    std::list<DeathLink> link;
    {
      const std::lock_guard lock(m_links_mutex);
      if (m_links.empty()) return true;
      if (m_runtime.loop().is_winding_down()) return false;
      link.splice(link.end(), m_links, m_links.begin());
      m_noticed = true;
    }
    link.front().deliver(m_handle);
  }
}

// For links to a process that is known to be dead.
void OutgoingConnection::deliver_late_notices() {
  if (deliver_notices()) return end_dead_lookup();
  m_runtime.loop().post_callback([self = shared_from_this()] { self->deliver_late_notices(); });
}

void OutgoingConnection::release_watch() {
  m_watch.reset();
  if (const auto callbacks = channel()) callbacks->close();
  const auto last = std::move(m_self);
}

std::shared_ptr<CallbackChannel> OutgoingConnection::channel() {
  const std::lock_guard lock(m_mutex);
  return m_channel;
}

}  // namespace vesk
