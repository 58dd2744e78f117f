#include "InstantVesk.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

#include "vesk/message/Message.h"

namespace {

struct Runtime {
  std::map<unsigned int, vesk::Parcel> answers;  // by the code of the call
  std::vector<vesk_endpoint*> endpoints;         // a reference to each
  std::vector<vesk_death_callback*> links;
  std::chrono::steady_clock::time_point bound_at;
  std::mutex mutex;
  std::condition_variable stopped;
  bool running = false;  // guarded by mutex
};

// Never destroyed: the client, a static object too, shuts down after main.
Runtime& instance() {
  static auto& runtime = *new Runtime;
  return runtime;
}

constexpr vesk_handle kTheHandle = {{1, 1}};

struct Hooks : vesk::MessageHooks {
  vesk::EndpointRef hold(vesk_endpoint* endpoint) override {
    endpoint->fn->endpoint_acquire(nullptr, endpoint);
    return {endpoint, [](vesk_endpoint* held) { held->fn->endpoint_release(nullptr, held); }};
  }
};

}  // namespace

vesk::MessageHooks& vesk::message_hooks() {
  static auto& hooks = *new Hooks;
  return hooks;
}

namespace bench {

void answer(unsigned int code, const vesk::Parcel& contents) {
  std::vector<std::byte> bytes(sizeof(std::int32_t));
  bytes.insert(bytes.end(), contents.bytes().begin(), contents.bytes().end());
  instance().answers[code] = vesk::Parcel(std::move(bytes));
}

void answerWith(unsigned int code, const void* data, std::size_t size) {
  instance().answers[code].assign(data, size);
}

vesk_buffer* bufferOf(const vesk::Parcel& parcel) {
  return new vesk_buffer{vesk::Parcel(parcel.bytes()), {}};
}

void rewind(vesk_buffer* buffer) {
  buffer->parcel.set_position(0);
}

void rewind(vesk_payload* payload) {
  payload->parcel.set_position(0);
}

const std::vector<std::byte>& bytesOf(const vesk_payload* payload) {
  return payload->parcel.bytes();
}

const std::vector<vesk_endpoint*>& endpoints() {
  return instance().endpoints;
}

void dropEndpoints() {
  for (vesk_endpoint* endpoint : instance().endpoints) endpoint->fn->endpoint_release(nullptr, endpoint);
  instance().endpoints.clear();
}

void restartService() {
  dropEndpoints();
  vesk_death_callback* callback = instance().links.back();
  instance().links.pop_back();
  vesk_handle handle = kTheHandle;
  callback->on_death(&instance(), callback, &handle);
  callback->death_release(callback);
}

std::chrono::steady_clock::time_point boundAt() {
  return instance().bound_at;
}

}  // namespace bench

int vesk_get_runtime(void** out) {
  const std::lock_guard lock(instance().mutex);
  instance().running = true;
  *out = &instance();
  return 0;
}

int vesk_run_loop(void* /*runtime*/) {
  std::unique_lock lock(instance().mutex);
  instance().stopped.wait(lock, [] { return !instance().running; });
  return 0;
}

int vesk_shutdown(void* /*runtime*/) {
  const std::lock_guard lock(instance().mutex);
  instance().running = false;
  instance().stopped.notify_all();
  return 0;
}

int vesk_service_bind(void* runtime, const char* name, vesk_service_bind_callback callback, void* context) {
  callback(runtime, context, name, kTheHandle);
  instance().bound_at = std::chrono::steady_clock::now();
  return 0;
}

int vesk_service_unbind(void* /*runtime*/, vesk_handle* /*handle*/) {
  bench::dropEndpoints();
  return 0;
}

int vesk_binder_servicemanager_get(void* /*runtime*/, const char* /*name*/, vesk_handle* out) {
  *out = kTheHandle;
  return 0;
}

int vesk_service_register(void* /*runtime*/, const char* /*name*/, vesk_endpoint* /*endpoint*/) {
  return -ENOTSUP;
}

int vesk_handle_is_valid(void* /*runtime*/, const vesk_handle* handle) {
  return handle->words[0] == 1 ? 1 : 0;
}
int vesk_handle_acquire(void* /*runtime*/, vesk_handle* /*handle*/) {
  return 0;
}
int vesk_handle_release(void* /*runtime*/, vesk_handle* /*handle*/) {
  return 0;
}
vesk_handle vesk_invalid_handle() {
  return {};
}

int vesk_handle_link_to_death(void* /*runtime*/, vesk_handle* /*handle*/, vesk_death_callback* callback) {
  callback->death_acquire(callback);
  instance().links.push_back(callback);
  return 0;
}

int vesk_handle_unlink_to_death(void* /*runtime*/, vesk_handle* /*handle*/, vesk_death_callback* callback) {
  auto& links = instance().links;
  const auto link = std::find(links.begin(), links.end(), callback);
  if (link == links.end()) return 0;
  links.erase(link);
  callback->death_release(callback);
  return 0;
}

int vesk_call(void* /*runtime*/, vesk_handle* /*handle*/, unsigned int code, vesk_payload* request,
              vesk_buffer* reply) {
  const auto answer = instance().answers.find(code);
  if (answer == instance().answers.end()) return -ENOTSUP;
  for (const vesk::EndpointRef& sent : request->endpoints) {
    sent->fn->endpoint_acquire(nullptr, sent.get());
    instance().endpoints.push_back(sent.get());
  }
  reply->parcel.assign(answer->second.bytes().data(), answer->second.bytes().size());
  return 0;
}

int vesk_reply_done(void* /*runtime*/, vesk_buffer* /*reply*/) {
  return 0;
}
