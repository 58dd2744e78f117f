#include "Exports.h"

#include <sys/socket.h>

#include <algorithm>

#include "Descriptors.h"
#include "Dispatch.h"

namespace vesk {

std::vector<std::uint64_t> ExportTable::add(const std::vector<EndpointRef>& endpoints) {
  std::vector<std::uint64_t> numbers;
  numbers.reserve(endpoints.size());
  const std::lock_guard lock(m_mutex);
  if (m_closed) check(-EPIPE);
  for (const EndpointRef& endpoint : endpoints) {
    std::uint64_t& number = m_numbers[endpoint.get()];
    if (number == 0) {
      number = ++m_last_number;
      m_exports[number].endpoint = endpoint;
    }
    ++m_exports[number].sent;
    numbers.push_back(number);
  }
  return numbers;
}

ExportTable::Callback::Callback(ExportTable& exports, std::uint64_t number) : m_exports(exports) {
  const std::lock_guard lock(m_exports.m_mutex);
  const auto found = m_exports.m_exports.find(number);
  if (found != m_exports.m_exports.end()) m_endpoint = found->second.endpoint;
  m_exports.m_calling = std::this_thread::get_id();
}

ExportTable::Callback::~Callback() {
  m_endpoint.reset();  // before anyone is told that the callback is over
  const std::lock_guard lock(m_exports.m_mutex);
  m_exports.m_calling = {};
  m_exports.m_called.notify_all();
}

// Gives the endpoint when the change leaves nothing that the peer may use.
template <typename Change>
EndpointRef ExportTable::change(std::uint64_t number, const Change& change) {
  const auto found = m_exports.find(number);
  if (found == m_exports.end()) return nullptr;
  change(found->second);
  if (found->second.sent != found->second.given_up) return nullptr;
  EndpointRef dropped = std::move(found->second.endpoint);
  m_numbers.erase(dropped.get());
  m_exports.erase(found);
  return dropped;
}

bool ExportTable::give_back(std::uint64_t number, std::uint32_t count) {
  EndpointRef dropped;  // outlives the lock: releasing it calls out
  const std::lock_guard lock(m_mutex);
  bool is_held = number != 0 && number <= m_last_number;
  dropped = change(number, [&](Export& held) {
    is_held = held.sent >= count;
    if (!is_held) return;
    held.sent -= count;
    // Those first: while it is open which ones came back, the endpoint stays with a sending that may still count.
    held.given_up -= std::min(held.given_up, count);
  });
  return is_held;
}

void ExportTable::take_back(std::uint64_t number) {
  EndpointRef dropped;
  const std::lock_guard lock(m_mutex);
  dropped = change(number, [](Export& held) { --held.sent; });
}

EndpointRef ExportTable::give_up(std::uint64_t number) {
  const std::lock_guard lock(m_mutex);
  return change(number, [](Export& held) { ++held.given_up; });
}

void ExportTable::settle(std::uint64_t number) {
  EndpointRef dropped;
  const std::lock_guard lock(m_mutex);
  dropped = change(number, [](Export& held) {
    --held.sent;
    if (held.given_up != 0) --held.given_up;
  });
}

void ExportTable::close() {
  decltype(m_exports) dropped;
  const std::lock_guard lock(m_mutex);
  m_closed = true;
  dropped.swap(m_exports);
  m_numbers.clear();
  while (m_calling != std::thread::id() && m_calling != std::this_thread::get_id()) m_called.wait(m_mutex);
}

std::shared_ptr<CallbackChannel> CallbackChannel::create(ExportTable& exports, pid_t peer,
                                                         std::function<void()> on_broken) {
  int ends[2] = {-1, -1};
  check_errno(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
  UniqueFd ours(ends[0]);
  UniqueFd theirs(ends[1]);
  remember_descriptor(theirs.get());
  std::shared_ptr<CallbackChannel> channel(new CallbackChannel(exports, peer, std::move(on_broken)));
  channel->m_peer_end = std::move(theirs);
  channel->m_bus = start_bus(std::move(ours), HandshakeRole::kConnecting, &CallbackChannel::on_message, channel.get());
  return channel;
}

bool CallbackChannel::finish_handshake() {
  while (sd_bus_is_ready(m_bus.get()) <= 0) {
    if (check(sd_bus_process(m_bus.get(), nullptr)) == 0) return false;
  }
  return true;
}

void CallbackChannel::attach(const Loop& loop) {
  if (!m_bus) return;
  const auto on_end = [](void* self) { static_cast<CallbackChannel*>(self)->m_on_broken(); };
  m_watch.start(loop, m_bus.get(), on_end, this);
}

bool CallbackChannel::drain(const Loop& loop) {
  const auto keep_alive = shared_from_this();
  m_watch.stop();
  // What lies in the socket stays there to be read; without this, the end of it would never be read.
  if (m_bus) ::shutdown(sd_bus_get_fd(m_bus.get()), SHUT_RD);
  while (m_bus && !loop.is_winding_down()) {
    if (sd_bus_process(m_bus.get(), nullptr) <= 0) return true;
  }
  return !m_bus;
}

void CallbackChannel::close() {
  m_watch.stop();
  m_bus.reset();
  m_peer_end.reset();
}

int CallbackChannel::on_message(sd_bus_message* message, void* self, sd_bus_error*) {
  auto* channel = static_cast<CallbackChannel*>(self);
  const auto keep_alive = channel->shared_from_this();
  const int handled = as_error_code([&] { return channel->handle(message) ? 1 : 0; });
  if (handled != 1) channel->m_on_broken();
  return 1;
}

bool CallbackChannel::handle(sd_bus_message* message) {
  if (is_call(message, kMemberCall, "tuay")) return deliver(message);
  if (!is_call(message, kMemberRelease, "tu")) return false;
  std::uint64_t number = 0;
  std::uint32_t count = 0;
  check(sd_bus_message_read(message, "tu", &number, &count));
  return m_exports.give_back(number, count);
}

bool CallbackChannel::deliver(sd_bus_message* message) {
  std::uint64_t number = 0;
  std::uint32_t code = 0;
  check(sd_bus_message_read(message, "tu", &number, &code));
  vesk_buffer request;
  if (!read_bytes(message, &request.parcel)) return false;
  vesk_payload reply;
  vesk_identity caller{m_peer, /*thread=*/0, nullptr};
  const bool answer = expects_reply(message);
  int status = -ENOENT;
  {
    const ExportTable::Callback callback(m_exports, number);
    if (vesk_endpoint* endpoint = callback.endpoint()) {
      status = call_endpoint(endpoint, code, &caller, &request, answer ? &reply : nullptr);
    }
  }
  return !answer || !m_bus || send_answer(message, status, &reply, m_answers) == 0;
}

}  // namespace vesk
