#include "DeviceTransport.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iostream>

namespace orvel::testing {
namespace {

using vesk::inprocess::Reply;
using vesk::inprocess::Target;
using vesk::inprocess::Transaction;

// What the host runtime has too.
constexpr std::chrono::seconds kCallLimit(30);

// A request of the client's, on the device's thread.
struct Request : vesk_buffer {
  std::vector<vesk_remote*> remotes;  // by the marks in it
};

// Who sent it, and whether the answer is left for later.
struct Caller : vesk_identity {
  DeviceTransport* transport = nullptr;
  std::shared_ptr<ClientCall> call;
  bool deferred = false;
};

vesk::inprocess::Bytes bytes_in(const vesk_payload& payload) {
  const auto& bytes = payload.parcel.bytes();
  return {bytes.data(), bytes.size()};
}

}  // namespace

// ---- Services ----

int DeviceTransport::serve(const char* name, vesk_endpoint* endpoint) {
  const std::uint64_t life = ++m_last_life;
  m_services[name] = {endpoint, life};
  m_vesk.add_service(name, [this, life](const Transaction& message) { return take_call(message, life); });
  m_time.service_started(name);
  return 0;
}

int DeviceTransport::withdraw(const std::string& name) {
  if (m_services.erase(name) == 0) return -ENOENT;
  m_vesk.kill_service(name);
  m_time.service_died(name);
  return 0;
}

// On the client's thread.
Reply DeviceTransport::take_call(const Transaction& message, std::uint64_t life) {
  const auto call = std::make_shared<ClientCall>(ClientCall{message, life});
  m_time.post([this, call] { dispatch(call); });
  if (!m_time.wait(call->wait, kCallLimit)) {
    m_time.post([this, call] {
      call->is_late = true;
      if (call->is_good) take_back(*call);
    });
    return {{}, -ETIMEDOUT};
  }
  if (call->hung_up) m_vesk.close_connection(message, -EPIPE);
  return call->reply;
}

void DeviceTransport::answer(ClientCall& call, int error, const vesk_payload* reply) {
  call.is_good = error == 0;
  if (call.is_late) {
    if (call.is_good) take_back(call);
    return;
  }
  call.reply = {error == 0 && reply != nullptr ? bytes_in(*reply) : vesk::inprocess::Bytes(), error};
  m_time.end(call.wait);
}

// The call has succeeded here and failed for the client, which has let go of the endpoints that went along.
void DeviceTransport::take_back(const ClientCall& call) {
  for (std::size_t index = 0; index < call.message.endpoints.size(); ++index) {
    const auto found = m_remotes.find({call.message.connection, call.message.endpoints[index]});
    if (found == m_remotes.end()) continue;
    vesk_remote* remote = vesk_remote_acquire(found->second.get());
    auto& transfers = remote->transfers;
    const auto is_expired = [](const auto& transfer) { return transfer.expired(); };
    transfers.erase(std::remove_if(transfers.begin(), transfers.end(), is_expired), transfers.end());
    remote->is_gone = remote->is_gone || transfers.empty();
    if (remote->is_gone) tell_gone(remote);
    release(remote);
  }
}

void DeviceTransport::dispatch(const std::shared_ptr<ClientCall>& call) {
  const auto service = m_services.find(call->message.service);
  if (service == m_services.end() || service->second.life != call->life) return answer(*call, -EPIPE, nullptr);
  vesk_endpoint* endpoint = service->second.endpoint;
  Request request;
  request.parcel.assign(call->message.request.data(), call->message.request.size());
  for (std::size_t index = 0; index < call->message.endpoints.size(); ++index) {
    request.remotes.push_back(remote_of(call->message, index));
  }
  Caller caller;
  caller.transport = this;
  caller.call = call;
  vesk_payload reply;
  int error = -EIO;
  try {
    error = endpoint->fn->endpoint_call(runtime(), endpoint, call->message.code, &caller, &request, &reply);
  } catch (const std::exception& thrown) {
    std::cerr << "TestDevice: " << call->message.service << " threw: " << thrown.what() << std::endl;
  }
  for (vesk_remote* remote : request.remotes) release(remote);
  if (!caller.deferred) answer(*call, error, &reply);
}

// ---- Endpoints of the client ----

// With one reference. The same endpoint that came twice over one connection is the same remote.
vesk_remote* DeviceTransport::remote_of(const Transaction& message, std::size_t index) {
  vesk_endpoint* endpoint = message.endpoints.at(index);
  auto& kept = m_remotes[{message.connection, endpoint}];
  // NOLINTNEXTLINE(modernize-make-unique): it does not make aggregates
  if (!kept) kept.reset(new vesk_remote{*this, message.connection, endpoint});
  kept->transfers.push_back(message.transfers.at(index));
  ++kept->references;
  return kept.get();
}

// What the client put into the endpoint ends on its run loop, as on a device: destroying it may call the client.
void DeviceTransport::release(vesk_remote* remote) {
  if (--remote->references > 0) return;
  const auto kept = m_remotes.extract({remote->connection, remote->endpoint});
  m_vesk.post([&vesk = m_vesk, transfers = kept.mapped()->transfers] {
    for (const auto& transfer : transfers) vesk.release_transfer(transfer);
  });
}

int DeviceTransport::send(const vesk_remote& remote, unsigned code, const vesk_payload& request) {
  if (remote.is_gone) return -EPIPE;
  send_to(Target(remote.transfers.front()), code, request);
  return 0;
}

void DeviceTransport::send_to(const Target& target, unsigned code, const vesk_payload& request) {
  const std::uint64_t number = m_current_message = ++m_last_message;
  m_vesk.send(target, code, bytes_in(request), [this, number](const Reply& ended) {
    if (ended.thrown) m_time.post([this, number, text = *ended.thrown] { m_thrown[number] = text; });
  });
}

std::optional<std::string> DeviceTransport::thrown_at(std::uint64_t message) const {
  const auto found = m_thrown.find(message);
  return found == m_thrown.end() ? std::nullopt : std::optional(found->second);
}

int DeviceTransport::ask(const vesk_remote& remote, unsigned code, const vesk_payload& request,
                         vesk_completion completion, void* context) {
  if (remote.is_gone) return -EPIPE;
  const std::uint64_t number = m_current_message = ++m_last_message;
  m_asked.push_back({number, remote.connection, completion, context});
  auto reply =
      std::make_shared<std::future<Reply>>(m_vesk.call(Target(remote.transfers.front()), code, bytes_in(request)));
  // The next step of the run loop, which finds the answer there.
  m_vesk.post([this, number, reply] { m_time.post([=, answered = reply->get()] { complete(number, answered); }); });
  return 0;
}

void DeviceTransport::complete(std::uint64_t number, const Reply& answered) {
  const auto found =
      std::find_if(m_asked.begin(), m_asked.end(), [&](const Asked& asked) { return asked.number == number; });
  if (found == m_asked.end()) return;
  const Asked asked = *found;
  m_asked.erase(found);
  m_current_message = number;
  if (answered.thrown) m_thrown[number] = *answered.thrown;
  vesk_buffer buffer;
  buffer.parcel.assign(answered.bytes.data(), answered.bytes.size());
  asked.completion(asked.context, answered.result, answered.result == 0 ? &buffer : nullptr);
}

void DeviceTransport::tell_gone(vesk_remote* remote) {
  if (auto* gone = std::exchange(remote->gone, nullptr)) gone(remote->gone_context, remote);
}

void DeviceTransport::connection_closed(std::uint32_t connection) {
  std::vector<std::uint64_t> owed;
  for (const Asked& asked : m_asked) {
    if (asked.connection == connection) owed.push_back(asked.number);
  }
  for (const std::uint64_t number : owed) complete(number, {{}, -EPIPE});
  std::vector<vesk_remote*> remotes;  // each with a reference, so that no notice takes another away
  for (const auto& [key, remote] : m_remotes) {
    if (key.first == connection) remotes.push_back(remote.get());
  }
  for (vesk_remote* remote : remotes) {
    ++remote->references;
    remote->is_gone = true;
  }
  for (vesk_remote* remote : remotes) tell_gone(remote);
  for (vesk_remote* remote : remotes) release(remote);
}

// ---- Names of the client ----

int DeviceTransport::find(const char* name, vesk_handle* out) {
  const std::vector<std::string> names = m_vesk.published();
  if (std::find(names.begin(), names.end(), name) == names.end()) return -ENOENT;
  m_found[++m_last_found] = {name};
  *out = {{m_last_found, 2}};
  return 0;
}

int DeviceTransport::forget(const vesk_handle& handle) {
  return m_found.erase(handle.words[0]) == 0 ? -EINVAL : 0;
}

int DeviceTransport::watch(const vesk_handle& handle, vesk_death_callback* told) {
  const auto found = m_found.find(handle.words[0]);
  if (found == m_found.end()) return -EINVAL;
  if (told != nullptr) told->death_acquire(told);
  if (auto* before = std::exchange(found->second.told, told)) before->death_release(before);
  return 0;
}

int DeviceTransport::call_name(const vesk_handle& handle, unsigned code, const vesk_payload& request) {
  const auto found = m_found.find(handle.words[0]);
  if (found == m_found.end()) return -EINVAL;
  const std::vector<std::string> names = m_vesk.published();
  if (std::find(names.begin(), names.end(), found->second.name) == names.end()) return -EPIPE;
  send_to(found->second.name, code, request);
  return 0;
}

void DeviceTransport::names_withdrawn() {
  std::vector<std::uint32_t> ids;
  for (const auto& [id, found] : m_found) ids.push_back(id);
  for (const std::uint32_t id : ids) {
    const auto found = m_found.find(id);
    if (found == m_found.end()) continue;
    vesk_handle handle = {{id, 2}};
    if (auto* told = std::exchange(found->second.told, nullptr)) {
      told->on_death(runtime(), told, &handle);
      told->death_release(told);
    }
  }
}

// ---- What the client does ----

void DeviceTransport::loop_has_work(bool has) {
  m_time.set_loop_busy(has);
}

void DeviceTransport::step_begins() {
  VirtualTime::set_missed({});
}

void DeviceTransport::looked_up(const std::string& service, bool found) {
  VirtualTime::set_missed(found ? std::string() : service);
}

void DeviceTransport::closed(std::uint32_t connection) {
  m_time.post([this, connection] { connection_closed(connection); });
}

void DeviceTransport::shut_down() {
  m_time.end_calls();
  m_time.post([this] { names_withdrawn(); });
}

}  // namespace orvel::testing

// ---- vesk_service.h ----

using orvel::testing::Caller;
using orvel::testing::DeviceTransport;
using orvel::testing::Request;

namespace {

DeviceTransport& transport_of(void* runtime) {
  return static_cast<DeviceTransport&>(*static_cast<vesk::inprocess::Device*>(runtime));
}

}  // namespace

int vesk_service_withdraw(void* runtime, const char* name) {
  return transport_of(runtime).withdraw(name);
}

pid_t vesk_identity_pid(const vesk_identity*) {
  return getpid();
}

// Threads of one process under test come and go as its runs please; entries are the same in each.
pid_t vesk_identity_thread(const vesk_identity*) {
  return 0;
}

vesk_deferred* vesk_request_defer(vesk_identity* caller) {
  auto& self = static_cast<Caller&>(*caller);
  if (std::exchange(self.deferred, true)) return nullptr;
  return new vesk_deferred{*self.transport, self.call};
}

int vesk_deferred_answer(vesk_deferred* deferred, int error, vesk_payload* reply) {
  const std::unique_ptr<vesk_deferred> owner(deferred);
  deferred->transport.answer(*deferred->call, error, reply);
  return 0;
}

int vesk_deferred_hang_up(vesk_deferred* deferred) {
  deferred->call->hung_up = true;
  return vesk_deferred_answer(deferred, -EPIPE, nullptr);
}

vesk_remote* vesk_read_endpoint(vesk_buffer* buffer) {
  auto& request = static_cast<Request&>(*buffer);
  std::uint32_t index = 0;
  if (!request.parcel.read_endpoint_mark(request.remotes.size(), &index)) return nullptr;
  return vesk_remote_acquire(request.remotes.at(index));
}

vesk_remote* vesk_remote_acquire(vesk_remote* remote) {
  ++remote->references;
  return remote;
}

void vesk_remote_release(vesk_remote* remote) {
  remote->transport.release(remote);
}

int vesk_remote_equal(const vesk_remote* a, const vesk_remote* b) {
  return a == b ? 1 : 0;
}

pid_t vesk_remote_pid(const vesk_remote*) {
  return getpid();
}

int vesk_remote_on_gone(vesk_remote* remote, void (*gone)(void* context, vesk_remote* remote), void* context) {
  remote->gone = gone;
  remote->gone_context = context;
  if (gone == nullptr || !remote->is_gone) return 0;
  vesk_remote_acquire(remote);
  orvel::testing::VirtualTime::instance().post([remote] {
    remote->transport.tell_gone(remote);
    vesk_remote_release(remote);
  });
  return 0;
}

int vesk_remote_call_oneway(vesk_remote* remote, unsigned int code, vesk_payload* request) {
  return remote->transport.send(*remote, code, *request);
}

// The limit is the device's own affair: its services wait for answers as long as these take.
int vesk_remote_call(vesk_remote* remote, unsigned int code, vesk_payload* request, unsigned int,
                     vesk_completion completion, void* context) {
  return remote->transport.ask(*remote, code, *request, completion, context);
}

int vesk_call_oneway(void* runtime, vesk_handle* handle, unsigned int code, vesk_payload* request) {
  return transport_of(runtime).call_name(*handle, code, *request);
}

pid_t vesk_handle_pid(void*, const vesk_handle*) {
  return getpid();
}
