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
#include "RuntimeDirectory.h"

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;

// A peer that lives has answered long before. The loop's thread has others to serve meanwhile.
constexpr std::chrono::milliseconds kHandshakePatience{50};
constexpr std::chrono::milliseconds kHandshakePatienceOfLoop{10};
// As many answers as a server may owe on one connection.
constexpr std::size_t kMaxLateAnswers = 256;

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

std::shared_ptr<OutgoingConnection> OutgoingConnection::open(const Surroundings& surroundings, const char* name) {
  const std::string file = escaped_name(name);
  const UniqueFd directory = open_runtime_directory();
  std::shared_ptr<OutgoingConnection> connection;
  check(as_refusal(as_error_code([&] {
    connection.reset(new OutgoingConnection(surroundings, name, connect_to_service(directory.get(), file)));
    return 0;
  })));
  return connection;
}

OutgoingConnection::OutgoingConnection(const Surroundings& surroundings, const char* name, UniqueFd socket)
    : m_owner(surroundings), m_path(object_path(name)) {
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
  m_owner.loop.post([self = shared_from_this()] {
    {
      const std::lock_guard lock(self->m_links_mutex);
      if (self->m_closed) return;
    }
    const auto on_event = [](sd_event_source*, int, std::uint32_t events, void* connection) {
      report_throw("the end of a connection",
                   [&] { static_cast<OutgoingConnection*>(connection)->on_socket_event(events); });
      return 0;
    };
    sd_event_source* source = nullptr;
    // Edge-triggered while the handshake is pending: a caller may be reading the same socket.
    if (sd_event_add_io(self->m_owner.loop.event(), &source, self->m_watched.get(), EPOLLIN | EPOLLRDHUP | EPOLLET,
                        on_event, self.get()) < 0) {
      // Without a watch its death would go unseen, so treat it as dead now.
      self->hang_up();
      self->m_owner.loop.post_callback([self] { self->finish_death(); });
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
    const bool in_loop = m_owner.loop.is_this_thread();
    const Deadline deadline = Clock::now() + (in_loop ? kHandshakePatienceOfLoop : kHandshakePatience);
    if (!finish_handshake(deadline)) return -ETIMEDOUT;
    // The message that says which service is meant has waited for that.
    std::uint64_t queued = 0;
    while (check(sd_bus_get_n_queued_write(m_bus.get(), &queued)) >= 0 && queued != 0) {
      if (!make_progress(deadline)) return -ETIMEDOUT;
    }
    return 0;
  });
  if (result == -ETIMEDOUT) return false;
  if (as_refusal(result) == -EAGAIN) check(-EAGAIN);
  return true;  // a service that breaks the rules instead has let this process in; the first call fails with what is
                // wrong
}

int OutgoingConnection::call(unsigned int code, const Parcel& request, const std::vector<EndpointRef>& endpoints,
                             Parcel& reply) {
  if (request.error() != 0) return request.error();
  if (request.bytes().size() > kMaxMessageBytes || endpoints.size() > kMaxMessageEndpoints) return -EMSGSIZE;
  // The loop would wait for itself.
  if (m_peer == ::getpid() && m_owner.loop.is_this_thread()) return -EDEADLK;
  const CallMark mark(m_calls_in_progress);
  if (m_owner.loop.is_stopped()) return -ESHUTDOWN;

  Attempt attempt;
  Leftover leftover;
  const int status = as_error_code([&] {
    if (!endpoints.empty()) attempt.numbers = m_exports.add(endpoints);
    attempt.given_up.reserve(endpoints.size());
    const std::lock_guard lock(m_mutex);
    if (!m_bus) return -EPIPE;
    try {
      const int result = transact(code, request, attempt, reply);
      leftover = take_leftover();
      return result;
    } catch (...) {
      break_connection();
      throw;
    }
  });
  if (const auto& channel = attempt.fresh_channel) {
    m_owner.loop.post([self = shared_from_this(), channel] { channel->attach(self->m_owner.loop); });
  }
  finish(std::move(leftover));
  if (status != 0) {
    if (!attempt.is_late) {
      for (const std::uint64_t number : attempt.numbers) m_exports.take_back(number);
    }
    if (m_owner.loop.is_stopped()) return -ESHUTDOWN;
  }
  return status;
}

MessagePtr OutgoingConnection::new_request(unsigned int code, const Parcel& request, bool expect_reply) {
  MessagePtr message = new_call(m_bus.get(), m_path.c_str(), kMemberCall, expect_reply);
  if (const pid_t thread = this_thread(); thread != m_told_thread) append_thread(message.get(), thread);
  check(sd_bus_message_append_basic(message.get(), 'u', &code));
  append_bytes(message.get(), request);
  return message;
}

int OutgoingConnection::transact(unsigned int code, const Parcel& request, Attempt& attempt, Parcel& reply) {
  const Deadline deadline = Clock::now() + m_owner.call_limit;
  if (!finish_handshake(deadline)) return -ETIMEDOUT;

  const MessagePtr message = new_request(code, request, /*expect_reply=*/true);
  if (!attempt.numbers.empty()) append_numbers(message.get(), attempt.numbers);
  std::shared_ptr<CallbackChannel> channel;
  if (!attempt.numbers.empty() && !m_channel) {
    const auto on_broken = [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->hang_up();
    };
    channel = CallbackChannel::create(m_exports, m_peer, on_broken);
    check(sd_bus_message_append(message.get(), "h", channel->peer_end()));  // takes a copy
  }

  const MessagePtr answer = exchange(message.get(), request.bytes().size(), deadline);
  if (m_awaited == 0) return -ETIMEDOUT;  // not even sent
  if (!answer) give_up_answer(attempt);
  m_awaited = 0;
  if (channel) {
    // The receiver takes it before it takes any later call, so that this one stays also when the call's time is over.
    if (!channel->finish_handshake() && answer) check(-EPROTO);
    m_channel = channel;
    attempt.fresh_channel = std::move(channel);
  }
  int status = -ETIMEDOUT;
  if (answer && !read_answer(answer.get(), &status, &reply)) check(-EPROTO);
  return status;
}

// What sd_bus_call does, except that a signal handler of the process does not end it. Null at the deadline; m_awaited
// then says whether the call has left.
MessagePtr OutgoingConnection::exchange(sd_bus_message* call, std::size_t size, Deadline deadline) {
  m_answer.reset();
  // Calls to a peer that reads nothing fail one after the other, and what they leave in the queue is bounded as well.
  while (!m_outbox.admits(m_bus.get(), size)) {
    if (!make_progress(deadline)) return nullptr;
  }
  check(sd_bus_send(m_bus.get(), call, &m_awaited));
  m_told_thread = this_thread();
  m_outbox.sent(size);
  while (!m_answer && make_progress(deadline)) {
  }
  return std::move(m_answer);
}

// From here on the answer is one that comes late.
void OutgoingConnection::give_up_answer(Attempt& attempt) {
  m_late.emplace(m_awaited, attempt.numbers);
  if (m_late.size() > kMaxLateAnswers) {
    m_forgotten = m_late.begin()->first;
    m_late.erase(m_late.begin());
  }
  attempt.is_late = true;
  for (const std::uint64_t number : attempt.numbers) attempt.given_up.push_back(m_exports.give_up(number));
}

// The peer sends nothing but answers, one to each call.
int OutgoingConnection::on_message(sd_bus_message* message, void* self, sd_bus_error*) {
  // sd-bus's own word for a hang-up, which does not break the rules.
  if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) return -ECONNRESET;
  auto* connection = static_cast<OutgoingConnection*>(self);
  const int taken = as_error_code([&]() VESK_NO_ANALYSIS {
    connection->take_message(message);
    return 0;
  });
  if (taken != 0) connection->m_unasked_message = true;
  return 1;
}

void OutgoingConnection::take_message(sd_bus_message* message) {
  std::uint64_t cookie = 0;
  const bool is_answer = sd_bus_message_get_reply_cookie(message, &cookie) >= 0;
  if (is_answer && cookie == m_awaited && !m_answer) {
    m_answer.reset(sd_bus_message_ref(message));
  } else if (const auto late = m_late.find(cookie); is_answer && late != m_late.end()) {
    const std::vector<std::uint64_t> numbers = std::move(late->second);
    m_late.erase(late);
    take_late_answer(message, numbers);
  } else if (!is_answer || cookie > m_forgotten) {
    m_unasked_message = true;
  }
}

// Its caller has been told that the call has failed, so the peer must not keep what it has taken.
void OutgoingConnection::take_late_answer(sd_bus_message* message, const std::vector<std::uint64_t>& numbers) {
  int status = 0;
  Parcel ignored;
  if (!read_answer(message, &status, &ignored)) check(-EPROTO);
  if (numbers.empty()) return;
  if (status != 0) {
    m_settled.insert(m_settled.end(), numbers.begin(), numbers.end());
    return;
  }
  const MessagePtr request = new_call(m_bus.get(), m_path.c_str(), kMemberTakeBack, /*expect_reply=*/false);
  append_numbers(request.get(), numbers);
  check(sd_bus_send(m_bus.get(), request.get(), nullptr));
  m_outbox.sent(numbers.size() * sizeof(numbers[0]));
}

int OutgoingConnection::send(unsigned int code, const Parcel& request) {
  if (m_owner.loop.is_stopped()) return -ESHUTDOWN;
  Leftover leftover;
  const std::size_t size = request.bytes().size();
  const int result = as_error_code([&] {
    const std::lock_guard lock(m_mutex);
    if (!m_bus) return -EPIPE;
    const int sent = as_error_code([&]() VESK_NO_ANALYSIS {
      const MessagePtr message = new_request(code, request, /*expect_reply=*/false);
      // Refused only when the socket takes no more.
      if (!m_outbox.admits(m_bus.get(), size) && !advance()) return -EPIPE;
      const int queued = m_outbox.send(m_bus.get(), message.get(), size);
      if (queued == 0) m_told_thread = this_thread();
      return queued;
    });
    if (sent == -EPIPE) break_connection();
    leftover = take_leftover();
    return sent;
  });
  finish(std::move(leftover));
  return result;
}

OutgoingConnection::Leftover OutgoingConnection::take_leftover() {
  std::uint64_t queued = 0;
  Leftover leftover{false, std::exchange(m_settled, {})};
  leftover.wants_pump = m_bus && (sd_bus_is_ready(m_bus.get()) <= 0 || !m_late.empty() ||
                                  sd_bus_get_n_queued_write(m_bus.get(), &queued) < 0 || queued != 0);
  return leftover;
}

void OutgoingConnection::finish(Leftover leftover) {
  if (!leftover.settled.empty()) {
    // Where endpoints may be released: that calls out.
    m_owner.loop.post_callback([self = shared_from_this(), settled = std::move(leftover.settled)] {
      for (const std::uint64_t number : settled) self->m_exports.settle(number);
    });
  }
  if (leftover.wants_pump) want_pump();
}

// sd-bus itself would wait 90 s for a process that accepts the connection and then says nothing.
bool OutgoingConnection::finish_handshake(Deadline deadline) {
  while (sd_bus_is_ready(m_bus.get()) <= 0) {
    if (!make_progress(deadline)) return false;
  }
  return true;
}

// Reads or writes once, or waits until that is possible. The deadline also holds when bytes come in all the time that
// never make an answer.
bool OutgoingConnection::make_progress(Deadline deadline) {
  const bool progress = check(sd_bus_process(m_bus.get(), nullptr)) > 0;
  if (m_unasked_message) check(-EPROTO);
  if (m_answer) return true;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  if (left <= 0) return false;
  if (progress) return true;
  pollfd socket{m_watched.get(), static_cast<short>(check(sd_bus_get_events(m_bus.get()))), 0};
  if (::poll(&socket, 1, static_cast<int>(std::min<std::int64_t>(left, INT_MAX))) < 0 && errno != EINTR) check(-errno);
  return true;
}

// Does what can be done without waiting. False when the connection has to end.
bool OutgoingConnection::advance() {
  int result = 0;
  do {
    result = sd_bus_process(m_bus.get(), nullptr);
  } while (result > 0 && !m_unasked_message);
  return result >= 0 && !m_unasked_message;
}

void OutgoingConnection::break_connection() {
  m_bus.reset();
  hang_up();
}

// The peer and a call in progress notice at once; the loop sees the hang-up and does the rest.
void OutgoingConnection::hang_up() {
  ::shutdown(m_watched.get(), SHUT_RDWR);
}

void OutgoingConnection::abort_call() {
  if (m_calls_in_progress != 0) hang_up();
}

void OutgoingConnection::on_socket_event(std::uint32_t events) {
  const auto keep_alive = shared_from_this();
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) == 0) return pump();
  finish_death();
  m_watch.reset();  // not before: where memory ran out meanwhile, the next event tries again
}

// A task for each message would be in the way of everything else on the loop.
void OutgoingConnection::want_pump() {
  if (m_pump_wanted.exchange(true)) return;
  const int posted = as_error_code([&] {
    m_owner.loop.post([self = shared_from_this()] {
      self->m_pump_wanted = false;  // before the look, so that what comes after it asks again
      self->pump();
    });
    return 0;
  });
  if (posted != 0) m_pump_wanted = false;
}

// Brings the handshake and what was sent one-way forward without waiting. A caller that holds the connection does it
// anyway.
void OutgoingConnection::pump() {
  if (!m_watch) return;
  if (!m_mutex.try_lock()) {
    // The thread that holds it asks for another look when something is left, and each of its answers would wake this
    // thread for nothing.
    sd_event_source_set_io_events(m_watch.get(), EPOLLRDHUP);
    return;
  }
  Leftover leftover;
  {
    const std::lock_guard lock(m_mutex, std::adopt_lock);
    if (!m_bus) return;
    std::uint64_t queued = 0;
    if (!advance() || sd_bus_get_n_queued_write(m_bus.get(), &queued) < 0) return break_connection();
    std::uint32_t events = EPOLLRDHUP;
    if (!m_late.empty()) events |= EPOLLIN;
    if (sd_bus_is_ready(m_bus.get()) <= 0) events |= EPOLLIN | EPOLLET;
    if (queued != 0) events |= EPOLLOUT;
    sd_event_source_set_io_events(m_watch.get(), events);
    leftover = take_leftover();
  }
  leftover.wants_pump = false;  // the events do that
  finish(std::move(leftover));
}

}  // namespace vesk
