// Messages in both directions through the runtime inside a process.
#include <cerrno>

#include "vesk/inprocess/Messages.h"
#include "vesk/inprocess/Runtime.h"

namespace vesk::inprocess {

// The error that a call in progress ends with, 0 while it can go on; its connection may be gone by now.
int Runtime::why_broken(const vesk_handle* handle, int started_at) {
  if (shutdowns != started_at) return -ESHUTDOWN;
  const Connection* connection = find(handle);
  return connection == nullptr ? -EPIPE : connection->death;
}

// Waits while a script holds the call; what it then fails with.
int Runtime::wait_while_held(Lock& lock, const vesk_handle* handle, unsigned code, int started_at) {
  Connection* connection = find(handle);
  const Service& service = services[connection->service];
  ++connection->calls_held;
  changed.notify_all();
  const auto is_held = [&] {
    return service.calls_held && (service.held_code == kAnyCode || service.held_code == code);
  };
  const int expiries = service.expiries;
  const auto is_late = [&] { return service.expiries != expiries; };
  changed.wait(lock, [&] { return !is_held() || is_late() || why_broken(handle, started_at) != 0; });
  if ((connection = find(handle)) != nullptr) --connection->calls_held;
  if (const int error = why_broken(handle, started_at)) return error;
  return is_late() ? -ETIMEDOUT : 0;
}

Reply Runtime::call(const vesk_handle* handle, Transaction& transaction, const EndpointRefs& endpoints, int refused) {
  Lock lock(mutex);
  Connection* connection = find(handle);
  if (connection != nullptr) transaction.service = connection->service, transaction.connection = handle->words[0];
  if (refused != 0) return {{}, refused};
  if (connection == nullptr) return {{}, -EINVAL};
  if (shut_down) return {{}, -ESHUTDOWN};
  if (connection->death != 0) return {{}, connection->death};
  const int started_at = shutdowns;
  connection->exports.insert(connection->exports.end(), endpoints.begin(), endpoints.end());

  Reply reply{{}, wait_while_held(lock, handle, transaction.code, started_at)};
  const Service& service = services[transaction.service];
  if (reply.result == 0 && service.handler) {
    const Handler handler = service.handler;
    lock.unlock();
    const int thrown = call_out("a handler", [&] { return reply = handler(transaction), 0; });
    lock.lock();
    if (const int error = thrown != 0 ? thrown : why_broken(handle, started_at)) reply = {{}, error};
  }
  connection = find(handle);
  if (reply.result != 0 && connection != nullptr) {
    take_if(connection->exports, [&](const EndpointRef& held) {
      return std::any_of(endpoints.begin(), endpoints.end(), [&](const auto& sent) { return is_same(sent, held); });
    });
  }
  return reply;
}

void Runtime::deliver(const Target& target, unsigned code, const Bytes& message,
                      const std::shared_ptr<std::promise<Reply>>& reply,
                      const std::function<void(const Reply&)>& ended) {
  const Lock lock(mutex);
  queue_step([this, target, code, message, reply, ended] {
    const Reply answer = call_endpoint(target, code, message, reply != nullptr);
    if (reply != nullptr) reply->set_value(answer);
    if (ended) ended(answer);
  });
}

// On the run loop.
Reply Runtime::call_endpoint(const Target& target, unsigned code, const Bytes& message, bool two_way) {
  const EndpointRef held = find_endpoint(target);
  Reply answer{{}, -EPIPE};
  if (held == nullptr) return answer;
  vesk_identity caller;
  vesk_buffer request;
  request.parcel.assign(message.data(), message.size());
  vesk_payload payload;
  const auto call = [&] {
    vesk_endpoint* endpoint = held.get();
    const vesk_endpoint_fn& fn = *endpoint->fn;
    return two_way ? fn.endpoint_call(runtime_address(), endpoint, code, &caller, &request, &payload)
                   : fn.endpoint_call_oneway(runtime_address(), endpoint, code, &caller, &request);
  };
  answer.result = call_out("an endpoint", call, &answer.thrown);
  if (answer.result == 0) answer.bytes = bytes_of(&payload);
  return answer;
}

EndpointRef Runtime::find_endpoint(const Target& target) {
  const auto transfer = target.transfer.lock();  // dropped after the lock
  const Lock lock(mutex);
  if (target.endpoint == nullptr && !target.by_transfer) {
    const auto found = published.find(target.name);
    return found == published.end() ? nullptr : found->second;
  }
  for (const auto& [id, connection] : connections) {
    for (const EndpointRef& held : connection.exports) {
      if (target.by_transfer ? !is_same(held, transfer) : held.get() != target.endpoint) continue;
      calling_back = id;
      return held;
    }
  }
  return nullptr;
}

}  // namespace vesk::inprocess
