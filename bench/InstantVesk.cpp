#include "InstantVesk.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

#include "vesk/vesk_service.h"

namespace {

// Holds one reference to each.
struct Endpoints {
  std::vector<vesk_endpoint*> list;

  Endpoints() = default;
  Endpoints(const Endpoints&) = delete;
  Endpoints& operator=(const Endpoints&) = delete;
  ~Endpoints() { drop(); }

  void add(vesk_endpoint* endpoint) {
    endpoint->fn->endpoint_acquire(nullptr, endpoint);
    list.push_back(endpoint);
  }
  void drop() {
    for (vesk_endpoint* endpoint : list) endpoint->fn->endpoint_release(nullptr, endpoint);
    list.clear();
  }
};

}  // namespace

struct vesk_payload {
  vesk::Parcel parcel;
  Endpoints endpoints;
};

struct vesk_buffer {
  vesk::Parcel parcel;
};

namespace {

struct Runtime {
  std::map<unsigned int, vesk::Parcel> answers;  // by the code of the call
  Endpoints endpoints;
  std::vector<vesk_death_callback*> links;
  std::chrono::steady_clock::time_point bound_at;
  std::mutex mutex;
  std::condition_variable stopped;
  bool running = false;  // guarded by mutex
};

// Never destroyed: the client, a static object too, shuts down after main.
Runtime& runtime() {
  static auto& instance = *new Runtime;
  return instance;
}

constexpr vesk_handle kTheHandle = {{1, 1}};

}  // namespace

namespace bench {

void answer(unsigned int code, const vesk::Parcel& contents) {
  std::vector<std::byte> bytes(sizeof(std::int32_t));
  bytes.insert(bytes.end(), contents.bytes().begin(), contents.bytes().end());
  runtime().answers[code] = vesk::Parcel(std::move(bytes));
}

void answerWith(unsigned int code, const void* data, std::size_t size) {
  runtime().answers[code].assign(data, size);
}

vesk_buffer* bufferOf(const vesk::Parcel& parcel) {
  return new vesk_buffer{vesk::Parcel(parcel.bytes())};
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
  return runtime().endpoints.list;
}

void dropEndpoints() {
  runtime().endpoints.drop();
}

void restartService() {
  dropEndpoints();
  vesk_death_callback* callback = runtime().links.back();
  runtime().links.pop_back();
  vesk_handle handle = kTheHandle;
  callback->on_death(&runtime(), callback, &handle);
  callback->death_release(callback);
}

std::chrono::steady_clock::time_point boundAt() {
  return runtime().bound_at;
}

}  // namespace bench

int vesk_get_runtime(void** out) {
  const std::lock_guard lock(runtime().mutex);
  runtime().running = true;
  *out = &runtime();
  return 0;
}

int vesk_run_loop(void* /*runtime*/) {
  std::unique_lock lock(runtime().mutex);
  runtime().stopped.wait(lock, [] { return !runtime().running; });
  return 0;
}

int vesk_shutdown(void* /*runtime*/) {
  const std::lock_guard lock(runtime().mutex);
  runtime().running = false;
  runtime().stopped.notify_all();
  return 0;
}

int vesk_service_bind(void* runtime, const char* name, vesk_service_bind_callback callback, void* context) {
  callback(runtime, context, name, kTheHandle);
  ::runtime().bound_at = std::chrono::steady_clock::now();
  return 0;
}

int vesk_service_unbind(void* /*runtime*/, vesk_handle* /*handle*/) {
  runtime().endpoints.drop();
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
  runtime().links.push_back(callback);
  return 0;
}

int vesk_handle_unlink_to_death(void* /*runtime*/, vesk_handle* /*handle*/, vesk_death_callback* callback) {
  auto& links = runtime().links;
  const auto link = std::find(links.begin(), links.end(), callback);
  if (link == links.end()) return 0;
  links.erase(link);
  callback->death_release(callback);
  return 0;
}

vesk_payload* vesk_payload_alloc() {
  return new vesk_payload;
}
void vesk_payload_free(vesk_payload* payload) {
  delete payload;
}
int vesk_payload_last_error(vesk_payload* payload) {
  return payload->parcel.error();
}

unsigned int vesk_payload_get_position(vesk_payload* payload) {
  return static_cast<unsigned int>(payload->parcel.position());
}

int vesk_payload_set_position(vesk_payload* payload, unsigned int position) {
  return payload->parcel.set_position(position);
}

vesk_buffer* vesk_buffer_alloc() {
  return new vesk_buffer;
}
void vesk_buffer_free(vesk_buffer* buffer) {
  delete buffer;
}
int vesk_buffer_last_error(vesk_buffer* buffer) {
  return buffer->parcel.error();
}

int vesk_call(void* /*runtime*/, vesk_handle* /*handle*/, unsigned int code, vesk_payload* request,
              vesk_buffer* reply) {
  const auto answer = runtime().answers.find(code);
  if (answer == runtime().answers.end()) return -ENOTSUP;
  for (vesk_endpoint* endpoint : request->endpoints.list) runtime().endpoints.add(endpoint);
  reply->parcel.assign(answer->second.bytes().data(), answer->second.bytes().size());
  return 0;
}

int vesk_reply_done(void* /*runtime*/, vesk_buffer* /*reply*/) {
  return 0;
}

int vesk_write_i32(vesk_payload* payload, int32_t value) {
  return payload->parcel.write_i32(value);
}
int vesk_write_i64(vesk_payload* payload, int64_t value) {
  return payload->parcel.write_i64(value);
}
int vesk_write_f64(vesk_payload* payload, double value) {
  return payload->parcel.write_f64(value);
}
int vesk_write_utf16_cstring(vesk_payload* payload, const char* utf8) {
  return payload->parcel.write_utf16(utf8);
}
int vesk_write_array_length(vesk_payload* payload, int32_t length) {
  return payload->parcel.write_i32(length);
}
int vesk_write_endpoint(vesk_payload* payload, vesk_endpoint* endpoint) {
  payload->endpoints.add(endpoint);
  return payload->parcel.write_endpoint_mark(static_cast<std::uint32_t>(payload->endpoints.list.size() - 1));
}

int32_t vesk_read_i32(vesk_buffer* buffer) {
  return buffer->parcel.read_i32();
}
int64_t vesk_read_i64(vesk_buffer* buffer) {
  return buffer->parcel.read_i64();
}
double vesk_read_f64(vesk_buffer* buffer) {
  return buffer->parcel.read_f64();
}
const uint16_t* vesk_read_utf16_string(vesk_buffer* buffer, unsigned int* length) {
  return buffer->parcel.read_utf16(length);
}
int32_t vesk_read_array_length(vesk_buffer* buffer) {
  return buffer->parcel.read_i32();
}

// What vesk_service.h has for looking into messages.
const void* vesk_payload_data(const vesk_payload* payload, size_t* size) {
  *size = payload->parcel.bytes().size();
  return payload->parcel.bytes().data();
}
int vesk_buffer_assign(vesk_buffer* buffer, const void* data, size_t size) {
  buffer->parcel.assign(data, size);
  return 0;
}
size_t vesk_buffer_remaining(const vesk_buffer* buffer) {
  return buffer->parcel.remaining();
}
