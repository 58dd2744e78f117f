// The functions of vesk.h on the runtime inside a process; those on messages are in message/functions.cpp.
#include <cerrno>
#include <string_view>
#include <utility>

#include "vesk/inprocess/Messages.h"
#include "vesk/inprocess/Runtime.h"
#include "vesk/message/Message.h"
#include "vesk/vesk.h"

using namespace vesk::inprocess;  // NOLINT(google-build-using-namespace)

namespace {

// The device whose runtime that is, so that the device is the caller; else null.
Device* device_of(void* runtime) {
  Device* device = Runtime::instance().device;
  return device != nullptr && runtime == device ? device : nullptr;
}

// What a shutdown has ended must not be asked for any more. Under the lock.
void require_running(const Runtime& self, const char* operation) {
  require(!self.shut_down, operation, "after a shutdown");
}

// What the client's uses of messages count as.
struct Hooks : vesk::MessageHooks {
  vesk::EndpointRef hold(vesk_endpoint* endpoint) override { return vesk::inprocess::hold(endpoint); }
  int begin(const char* function) override {
    ++t_depth;
    return Runtime::instance().uses.enter(function);
  }
  void end() override { --t_depth; }
  void got_null(const char* function, const char* what) override { require(false, function, what); }
  void count_payloads(int change) override { g_counts.payloads += change; }
  void count_buffers(int change) override { g_counts.buffers += change; }
};

// The shared shape of the functions: one more use, which fails when that is planned.
template <typename Body>
int use(const char* operation, Body body) {
  const Inside inside;
  const int planned = Runtime::instance().uses.enter(operation);
  return planned != 0 ? planned : body(Runtime::instance());
}

// The same for what needs a handle that names something. `body` runs under the lock and may unlock.
template <typename Body>
int use_handle(const char* operation, const vesk_handle* handle, Body body) {
  require(handle != nullptr, operation, "a null handle");
  return use(operation, [&](Runtime& self) {
    Runtime::Lock lock(self.mutex);
    const bool was_one = handle->words[1] == 1 && handle->words[0] <= self.last_connection;
    require(was_one || operation == std::string_view("vesk_handle_is_valid"), operation, "never was a handle");
    Connection* connection = self.find(handle);
    if (connection == nullptr) return -EINVAL;
    body(self, *connection, lock);
    return 0;
  });
}

}  // namespace

vesk::MessageHooks& vesk::message_hooks() {
  static auto* const hooks = new Hooks;
  return *hooks;
}

int vesk_get_runtime(void** runtime) {
  return use(__func__, [&](Runtime& self) {
    const Runtime::Lock lock(self.mutex);
    self.shut_down = false;
    self.tell_work();
    *runtime = self.null_runtime ? nullptr : runtime_address();
    return 0;
  });
}

int vesk_run_loop(void*) {
  return use(__func__, [](Runtime& self) { return self.run_loop(); });
}

int vesk_shutdown(void*) {
  return use(__func__, [](Runtime& self) { return self.shut_down_now(), 0; });
}

int vesk_service_bind(void*, const char* name, vesk_service_bind_callback callback, void* context) {
  require(name != nullptr && callback != nullptr, __func__, "a null name or callback");
  return use(__func__, [&](Runtime& self) {
    Runtime::Lock lock(self.mutex);
    require_running(self, "vesk_service_bind");
    if (const int refused = self.refusal(name)) return refused;
    self.pending_binds.push_back({name, callback, context});
    if (self.device != nullptr) self.device.load()->looked_up(name, false);  // until it is answered
    self.answer_binds(lock, name);
    return 0;
  });
}

int vesk_service_unbind(void* runtime, vesk_handle* handle) {
  if (Device* device = device_of(runtime)) return device->forget(*handle);
  return use_handle(__func__, handle, [&](Runtime& self, Connection& connection, Runtime::Lock& lock) {
    require(connection.linked, "vesk_service_unbind", "of what was not linked to its death");
    connection.lookups = 0;
    self.bindings.push_back("-" + connection.service);
    self.close_if_unused(lock, handle->words[0]);
  });
}

int vesk_binder_servicemanager_get(void* runtime, const char* name, vesk_handle* out) {
  if (Device* device = device_of(runtime)) return device->find(name, out);
  return use(__func__, [&](Runtime& self) {
    const Runtime::Lock lock(self.mutex);
    require_running(self, "vesk_binder_servicemanager_get");
    if (const int refused = self.refusal(name)) return refused;
    if (!self.services[name].running) {
      if (self.device != nullptr) self.device.load()->looked_up(name, false);
      return -ENOENT;
    }
    *out = self.connect(name);
    return 0;
  });
}

int vesk_service_register(void* runtime, const char* name, vesk_endpoint* endpoint) {
  if (Device* device = device_of(runtime)) return device->serve(name, endpoint);
  return use(__func__, [&](Runtime& self) {
    require(name != nullptr && endpoint != nullptr, "vesk_service_register", "a null name or endpoint");
    if (name == nullptr || endpoint == nullptr || !vesk::is_complete(*endpoint)) return -EINVAL;
    auto held = hold(endpoint);  // before the lock; what it replaces is dropped after it
    const Runtime::Lock lock(self.mutex);
    require_running(self, "vesk_service_register");
    if (self.services[name].running) return -EADDRINUSE;
    self.published[name].swap(held);
    self.bindings.push_back(std::string("=") + name);
    return 0;
  });
}

int vesk_handle_is_valid(void*, const vesk_handle* handle) {
  return use_handle(__func__, handle, [](Runtime&, Connection&, Runtime::Lock&) {}) == 0 ? 1 : 0;
}

int vesk_handle_acquire(void*, vesk_handle* handle) {
  return use_handle(__func__, handle, [](Runtime&, Connection& connection, Runtime::Lock&) { ++connection.acquired; });
}

int vesk_handle_release(void*, vesk_handle* handle) {
  return use_handle(__func__, handle, [&](Runtime& self, Connection& connection, Runtime::Lock& lock) {
    --(connection.acquired > 0 ? connection.acquired : connection.lookups);
    if (connection.death != 0) connection.lookups = 0;
    self.close_if_unused(lock, handle->words[0]);
  });
}

vesk_handle vesk_invalid_handle() {
  return {{0, 0}};
}

int vesk_handle_link_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback) {
  if (Device* device = device_of(runtime)) return device->watch(*handle, callback);
  require(callback != nullptr, __func__, "a null callback");
  const Inside inside;
  const auto made = std::make_shared<DeathLink>(callback);  // dropped after the lock where the handle is not valid
  return use_handle(__func__, handle, [&](Runtime& self, Connection& connection, Runtime::Lock&) {
    connection.links.push_back(made);
    connection.linked = true;
    if (connection.death == 0) return;
    self.queue_notice(handle->words[0], made);
    self.queue_step([&self, id = handle->words[0]] { self.end(id); });
  });
}

int vesk_handle_unlink_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback) {
  if (Device* device = device_of(runtime)) return device->watch(*handle, nullptr);
  DeathLinks unlinked;  // dropped after the lock
  return use_handle(__func__, handle, [&](Runtime&, Connection& connection, Runtime::Lock&) {
    unlinked = take_if(connection.links, [callback](const auto& link) { return link->callback == callback; });
  });
}

int vesk_call(void*, vesk_handle* handle, unsigned int code, vesk_payload* request, vesk_buffer* reply) {
  const Inside inside;
  Runtime& self = Runtime::instance();
  const int planned = self.uses.enter(__func__);
  require(handle != nullptr && request != nullptr && reply != nullptr, __func__, "a null handle or message");
  if (request == nullptr || reply == nullptr) return -EINVAL;
  const EndpointRefs endpoints = std::exchange(request->endpoints, {});
  const auto& bytes = request->parcel.bytes();
  Transaction transaction{"", code, {bytes.data(), bytes.size()}, {}, 0, {endpoints.begin(), endpoints.end()}, 0};
  for (const vesk::EndpointRef& held : endpoints) transaction.endpoints.push_back(held.get());
  const int refused = planned != 0 ? planned : request->parcel.error();
  const Reply answer = self.call(handle, transaction, endpoints, refused);
  reply->parcel.assign(answer.bytes.data(), answer.bytes.size());
  transaction.result = answer.result;
  const Runtime::Lock lock(self.mutex);
  self.transactions.push_back(std::move(transaction));
  return answer.result;
}

int vesk_reply_done(void*, vesk_buffer* reply) {
  return use(__func__, [&](Runtime&) {
    if (reply != nullptr) reply->parcel = {};  // so that a late use of what was in it shows
    return 0;
  });
}
