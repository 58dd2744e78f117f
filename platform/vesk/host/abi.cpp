// The C functions: thin shells that turn what is thrown into an error code.
#include <cerrno>
#include <memory>

#include "Dispatch.h"
#include "Runtime.h"
#include "RuntimeDirectory.h"
#include "Support.h"
#include "vesk/message/Message.h"
#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

using vesk::as_error_code;
using vesk::is_complete;
using vesk::Runtime;

namespace {

// Runs `body` with the runtime, which the caller has to have.
template <typename Body>
int with_runtime(void* runtime, const Body& body) noexcept {
  if (Runtime::is_forked_child()) return -EPERM;
  if (runtime == nullptr) return -EINVAL;
  return as_error_code([&] { return body(Runtime::instance()); });
}

// The same for what asks for a connection.
template <typename Body>
int with_connection(void* runtime, const vesk_handle* handle, const Body& body) noexcept {
  return with_runtime(runtime, [&](Runtime& self) {
    const auto connection = handle == nullptr ? nullptr : self.handles().connection(*handle);
    return connection ? body(*connection) : -EINVAL;
  });
}

template <typename Body>
int with_handle(void* runtime, const vesk_handle* handle, const Body& body) noexcept {
  return with_runtime(runtime, [&](Runtime& self) { return handle == nullptr ? -EINVAL : body(self, *handle); });
}

// The shared shape of the functions on remotes: on the loop's thread, with the connection that the endpoint came over.
template <typename Body>
int with_remote(vesk_remote* remote, const Body& body) noexcept {
  if (remote == nullptr) return -EINVAL;
  return with_runtime(vesk::runtime_address(), [&](Runtime& self) {
    if (!self.loop().is_this_thread()) return -EPERM;
    const auto connection = remote->connection.lock();
    return connection && connection->is_open() ? body(*connection) : -EPIPE;
  });
}

int check_request(const vesk_payload* request) {
  if (request == nullptr) return -EINVAL;
  if (request->parcel.error() != 0) return request->parcel.error();
  if (!request->endpoints.empty()) return -EINVAL;  // endpoints travel from the one who connected
  return request->parcel.bytes().size() > vesk::kMaxMessageBytes ? -EMSGSIZE : 0;
}

}  // namespace

extern "C" {

// ---- Runtime ----

int vesk_get_runtime(void** runtime) {
  if (runtime == nullptr) return -EINVAL;
  if (Runtime::is_forked_child()) return -EPERM;
  return as_error_code([&] {
    Runtime::instance().join_device();
    *runtime = vesk::runtime_address();
    return 0;
  });
}

int vesk_serve_device(void** runtime) {
  if (runtime == nullptr) return -EINVAL;
  if (Runtime::is_forked_child()) return -EPERM;
  return as_error_code([&] {
    Runtime::instance().serve_device();
    *runtime = vesk::runtime_address();
    return 0;
  });
}

int vesk_run_loop(void* runtime) {
  return with_runtime(runtime, [](Runtime& self) { return self.loop().run(); });
}

int vesk_shutdown(void* runtime) {
  return with_runtime(runtime, [](Runtime& self) {
    self.shutdown();
    return 0;
  });
}

const char* vesk_runtime_directory(void) {
  return vesk::runtime_directory().c_str();
}

sd_event* vesk_service_event(void* runtime) {
  return runtime == nullptr ? nullptr : Runtime::instance().loop().event();
}

// ---- Services ----

int vesk_service_bind(void* runtime, const char* name, vesk_service_bind_callback callback, void* context) {
  if (callback == nullptr) return -EINVAL;
  return with_runtime(runtime, [&](Runtime& self) {
    self.binds().bind(name, callback, context);
    return 0;
  });
}

int vesk_service_unbind(void* runtime, vesk_handle* handle) {
  return with_handle(runtime, handle, [](Runtime& self, const vesk_handle& value) {
    self.handles().end_lookup_reference(value);
    return 0;
  });
}

int vesk_binder_servicemanager_get(void* runtime, const char* name, vesk_handle* out) {
  return with_handle(runtime, out, [&](Runtime& self, const vesk_handle&) {
    *out = self.handles().look_up(name);
    return 0;
  });
}

int vesk_service_register(void* runtime, const char* name, vesk_endpoint* endpoint) {
  if (endpoint == nullptr || !is_complete(*endpoint)) return -EINVAL;
  return with_runtime(runtime, [&](Runtime& self) {
    self.server().publish(name, endpoint);
    return 0;
  });
}

int vesk_service_withdraw(void* runtime, const char* name) {
  if (name == nullptr) return -EINVAL;
  return with_runtime(runtime, [&](Runtime& self) { return self.server().withdraw(name); });
}

int vesk_service_connections(void* runtime, const char* name,
                             void (*found)(void* context, pid_t client, std::uint64_t opened_us), void* context) {
  if (name == nullptr || found == nullptr) return -EINVAL;
  return with_runtime(runtime, [&](Runtime& self) {
    if (!self.loop().is_this_thread()) return -EPERM;
    return self.server().each_connection(
        name, [&](pid_t client, std::uint64_t opened_us) { found(context, client, opened_us); });
  });
}

// ---- Handles ----

int vesk_handle_is_valid(void* runtime, const vesk_handle* handle) {
  return with_connection(runtime, handle, [](auto&) { return 1; }) == 1 ? 1 : 0;
}

pid_t vesk_handle_pid(void* runtime, const vesk_handle* handle) {
  const int pid = with_connection(runtime, handle, [](auto& connection) { return connection.peer(); });
  return pid < 0 ? 0 : pid;
}

int vesk_handle_acquire(void* runtime, vesk_handle* handle) {
  return with_handle(runtime, handle,
                     [](Runtime& self, const vesk_handle& value) { return self.handles().acquire(value); });
}

int vesk_handle_release(void* runtime, vesk_handle* handle) {
  return with_handle(runtime, handle,
                     [](Runtime& self, const vesk_handle& value) { return self.handles().release(value); });
}

vesk_handle vesk_invalid_handle(void) {
  return vesk_handle{};
}

int vesk_handle_link_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback) {
  if (callback == nullptr) return -EINVAL;
  return with_connection(runtime, handle, [&](auto& connection) { return connection.link_to_death(callback); });
}

int vesk_handle_unlink_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback) {
  if (callback == nullptr) return -EINVAL;
  return with_connection(runtime, handle, [&](auto& connection) {
    connection.unlink_to_death(callback);
    return 0;
  });
}

// ---- Transactions ----

int vesk_call(void* runtime, vesk_handle* handle, unsigned int code, vesk_payload* request, vesk_buffer* reply) {
  if (request == nullptr || reply == nullptr) return -EINVAL;
  // Taken out of the request in any case: on failure they are dropped, also where the handle names nothing.
  const std::vector<vesk::EndpointRef> endpoints = std::exchange(request->endpoints, {});
  return with_connection(runtime, handle, [&](auto& connection) {
    return connection.call(code, request->parcel, endpoints, reply->parcel);
  });
}

int vesk_reply_done(void* runtime, vesk_buffer* reply) {
  return with_runtime(runtime, [&](Runtime&) {
    if (reply != nullptr) reply->parcel = vesk::Parcel();
    return 0;
  });
}

int vesk_call_oneway(void* runtime, vesk_handle* handle, unsigned int code, vesk_payload* request) {
  if (const int refused = check_request(request); refused != 0) return refused;
  return with_connection(runtime, handle, [&](auto& connection) { return connection.send(code, request->parcel); });
}

// ---- Requests ----

pid_t vesk_identity_pid(const vesk_identity* caller) {
  return caller == nullptr ? 0 : caller->pid;
}

pid_t vesk_identity_thread(const vesk_identity* caller) {
  return caller == nullptr ? 0 : caller->thread;
}

vesk_deferred* vesk_request_defer(vesk_identity* caller) {
  if (caller == nullptr || caller->request == nullptr) return nullptr;
  vesk_deferred* deferred = nullptr;
  as_error_code([&] {
    deferred = caller->request->defer();
    return 0;
  });
  return deferred;
}

int vesk_deferred_answer(vesk_deferred* deferred, int error, vesk_payload* reply) {
  if (deferred == nullptr) return -EINVAL;
  return with_runtime(vesk::runtime_address(), [&](Runtime& self) {
    if (!self.loop().is_this_thread()) return -EPERM;
    const std::unique_ptr<vesk_deferred> owner(deferred);
    const auto connection = deferred->connection.lock();
    const int status = error != 0 || reply == nullptr ? error : reply->parcel.error();
    if (connection) connection->finish_deferred(*deferred, status, reply);
    return 0;
  });
}

int vesk_deferred_hang_up(vesk_deferred* deferred) {
  if (deferred == nullptr) return -EINVAL;
  return with_runtime(vesk::runtime_address(), [&](Runtime& self) {
    if (!self.loop().is_this_thread()) return -EPERM;
    const std::unique_ptr<vesk_deferred> owner(deferred);
    if (const auto connection = deferred->connection.lock()) connection->retire();
    return 0;
  });
}

// ---- Endpoints of other processes ----

vesk_remote* vesk_read_endpoint(vesk_buffer* buffer) {
  std::uint32_t index = 0;
  if (buffer == nullptr || !buffer->parcel.read_endpoint_mark(buffer->remotes.size(), &index)) return nullptr;
  return vesk_remote_acquire(buffer->remotes[index].get());
}

vesk_remote* vesk_remote_acquire(vesk_remote* remote) {
  if (remote != nullptr) ++remote->references;
  return remote;
}

void vesk_remote_release(vesk_remote* remote) {
  if (remote == nullptr || --remote->references != 0) return;
  as_error_code([&] {
    const std::unique_ptr<vesk_remote> owner(remote);
    if (const auto connection = remote->connection.lock()) connection->forget(*remote);
    return 0;
  });
}

int vesk_remote_equal(const vesk_remote* a, const vesk_remote* b) {
  return a == b ? 1 : 0;
}

pid_t vesk_remote_pid(const vesk_remote* remote) {
  return remote == nullptr ? 0 : remote->pid;
}

int vesk_remote_on_gone(vesk_remote* remote, void (*gone)(void* context, vesk_remote* remote), void* context) {
  const int result = with_remote(remote, [&](auto&) {
    remote->gone = gone;
    remote->gone_context = context;
    return 0;
  });
  if (result != -EPIPE || gone == nullptr) return result;
  // Gone already: the notice follows from the loop.
  return as_error_code([&] {
    remote->gone = gone;
    remote->gone_context = context;
    const std::shared_ptr<vesk_remote> keep_alive(vesk_remote_acquire(remote), vesk_remote_release);
    Runtime::instance().loop().post_callback([keep_alive] {
      if (const auto notice = std::exchange(keep_alive->gone, nullptr)) {
        notice(keep_alive->gone_context, keep_alive.get());
      }
    });
    return 0;
  });
}

int vesk_remote_call_oneway(vesk_remote* remote, unsigned int code, vesk_payload* request) {
  if (const int refused = check_request(request); refused != 0) return refused;
  return with_remote(remote, [&](auto& connection) { return connection.call_remote(*remote, code, request->parcel); });
}

int vesk_remote_call(vesk_remote* remote, unsigned int code, vesk_payload* request, unsigned int timeout_ms,
                     vesk_completion completion, void* context) {
  if (completion == nullptr) return -EINVAL;
  if (const int refused = check_request(request); refused != 0) return refused;
  return with_remote(remote, [&](auto& connection) {
    return connection.call_remote(*remote, code, request->parcel, timeout_ms, completion, context);
  });
}

}  // extern "C"
