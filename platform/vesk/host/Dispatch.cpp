#include "Dispatch.h"

namespace vesk {
namespace {

int g_runtime;

}  // namespace

void* runtime_address() {
  return &g_runtime;
}

EndpointRef hold_endpoint(vesk_endpoint* endpoint) {
  report_throw("endpoint_acquire", [&] { endpoint->fn->endpoint_acquire(runtime_address(), endpoint); });
  return {endpoint, [](vesk_endpoint* held) {
            report_throw("endpoint_release", [&] { held->fn->endpoint_release(runtime_address(), held); });
          }};
}

MessageHooks& message_hooks() {
  struct HostHooks : MessageHooks {
    EndpointRef hold(vesk_endpoint* endpoint) override { return hold_endpoint(endpoint); }
  };
  static auto* const hooks = new HostHooks;
  return *hooks;
}

DeathLink::DeathLink(vesk_death_callback* callback) : m_callback(callback) {
  report_throw("death_acquire", [&] { m_callback->death_acquire(m_callback); });
}

DeathLink::~DeathLink() {
  report_throw("death_release", [&] { m_callback->death_release(m_callback); });
}

void DeathLink::deliver(vesk_handle handle) const {
  report_throw("on_death", [&] { m_callback->on_death(runtime_address(), m_callback, &handle); });
}

int call_endpoint(vesk_endpoint* endpoint, unsigned int code, vesk_identity* caller, vesk_buffer* request,
                  vesk_payload* reply) {
  void* runtime = runtime_address();
  int status = -EREMOTEIO;
  report_throw("callback of an endpoint", [&] {
    if (reply == nullptr) {
      status = endpoint->fn->endpoint_call_oneway(runtime, endpoint, code, caller, request);
      return;
    }
    status = endpoint->fn->endpoint_call(runtime, endpoint, code, caller, request, reply);
    if (status == 0) status = reply->parcel.error();
  });
  return status;
}

int send_answer(sd_bus_message* call, int status, const vesk_payload* reply, Outbox& outbox) {
  static const Parcel kNothing;
  const Parcel& bytes = status == 0 && reply != nullptr ? reply->parcel : kNothing;
  const std::size_t size = bytes.bytes().size();
  sd_bus_message* raw = nullptr;
  check(sd_bus_message_new_method_return(call, &raw));
  const MessagePtr answer(raw);
  // An answer that is too long fails its own call, not the connection.
  const bool too_long = size > kMaxMessageBytes;
  check(sd_bus_message_append(raw, "i", too_long ? -EMSGSIZE : status));
  append_bytes(raw, too_long ? kNothing : bytes);
  return outbox.send(sd_bus_message_get_bus(call), raw, too_long ? 0 : size);
}

}  // namespace vesk
