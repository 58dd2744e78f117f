#include "InstantVesk.h"

#include <cerrno>
#include <condition_variable>
#include <mutex>

struct vesk_payload {
  vesk::Parcel parcel;
};

struct vesk_buffer {
  vesk::Parcel parcel;
};

namespace {

constexpr unsigned int kGetDeviceName = 33;

vesk::Parcel deviceNameReply() {
  vesk::Parcel reply;
  reply.write_i32(0);  // no exception
  reply.write_utf16(bench::kDeviceName);
  return reply;
}

struct Runtime {
  const vesk::Parcel device_name_reply = deviceNameReply();
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

vesk_buffer* bufferOf(const vesk::Parcel& parcel) {
  return new vesk_buffer{vesk::Parcel(parcel.bytes())};
}

void rewind(vesk_buffer* buffer) {
  buffer->parcel.set_position(0);
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
  return 0;
}

int vesk_service_unbind(void* /*runtime*/, vesk_handle* /*handle*/) {
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
  return 0;
}

int vesk_handle_unlink_to_death(void* /*runtime*/, vesk_handle* /*handle*/, vesk_death_callback* callback) {
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

int vesk_call(void* /*runtime*/, vesk_handle* /*handle*/, unsigned int code, vesk_payload* /*request*/,
              vesk_buffer* reply) {
  if (code != kGetDeviceName) return -ENOTSUP;
  const auto& bytes = runtime().device_name_reply.bytes();
  reply->parcel.assign(bytes.data(), bytes.size());
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
int vesk_write_endpoint(vesk_payload* /*payload*/, vesk_endpoint* /*endpoint*/) {
  return -ENOTSUP;
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
