// The functions of vesk.h and vesk_service.h on payloads and buffers, the same in every runtime.
#include <cerrno>
#include <cstdint>
#include <new>

#include "vesk/message/Errors.h"
#include "vesk/message/Message.h"

using vesk::as_error_code;
using vesk::is_complete;
using vesk::message_hooks;
using vesk::Parcel;

namespace {

constexpr char kMessage[] = "a null message";

// One use of a function, from its first line to its last.
class Use {
 public:
  explicit Use(const char* function) : m_function(function), m_error(message_hooks().begin(function)) {}
  ~Use() { message_hooks().end(); }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  // The error that the function fails with instead of doing anything; 0: none.
  [[nodiscard]] int error() const { return m_error; }

  // Whether `value` is not null.
  template <typename Value>
  [[nodiscard]] bool has(const Value* value, const char* what) const {
    if (value == nullptr) message_hooks().got_null(m_function, what);
    return value != nullptr;
  }

 private:
  const char* m_function;
  const int m_error;
};

// Whether there is a message at all, for functions that do not count as a use.
template <typename Message>
bool exists(const char* function, const Message* message) {
  if (message == nullptr) message_hooks().got_null(function, kMessage);
  return message != nullptr;
}

// A write: what cannot be written sticks in the payload.
template <typename Body>
int write(const char* function, vesk_payload* payload, const Body& body) {
  const Use use(function);
  if (!use.has(payload, kMessage)) return -EINVAL;
  const int result = use.error() != 0 ? use.error() : as_error_code([&] { return body(use, payload->parcel); });
  return result == 0 ? 0 : payload->parcel.fail(result);
}

// A read: 0 or null without a buffer, and in an error that holds or that the runtime asks for.
template <typename Body>
auto read(const char* function, vesk_buffer* buffer, const Body& body) -> decltype(body(buffer->parcel)) {
  const Use use(function);
  if (!use.has(buffer, kMessage)) return {};
  if (use.error() != 0) buffer->parcel.fail(use.error());
  return body(buffer->parcel);
}

template <typename Message>
Message* allocate(const char* function) {
  const Use use(function);
  return use.error() != 0 ? nullptr : new (std::nothrow) Message;
}

}  // namespace

extern "C" {

// ---- Payloads ----

vesk_payload* vesk_payload_alloc(void) {
  auto* payload = allocate<vesk_payload>(__func__);
  if (payload != nullptr) message_hooks().count_payloads(1);
  return payload;
}

void vesk_payload_free(vesk_payload* payload) {
  if (!exists(__func__, payload)) return;
  message_hooks().count_payloads(-1);
  delete payload;
}

int vesk_payload_last_error(vesk_payload* payload) {
  return exists(__func__, payload) ? payload->parcel.error() : -EINVAL;
}

unsigned int vesk_payload_get_position(vesk_payload* payload) {
  return exists(__func__, payload) ? static_cast<unsigned int>(payload->parcel.position()) : 0;
}

int vesk_payload_set_position(vesk_payload* payload, unsigned int position) {
  return write(__func__, payload, [&](const Use&, Parcel& parcel) { return parcel.set_position(position); });
}

const void* vesk_payload_data(const vesk_payload* payload, size_t* size) {
  if (size != nullptr) *size = payload == nullptr ? 0 : payload->parcel.bytes().size();
  return payload == nullptr ? nullptr : payload->parcel.bytes().data();
}

int vesk_payload_truncate(vesk_payload* payload, size_t size) {
  return payload == nullptr ? -EINVAL : payload->parcel.truncate(size);
}

// ---- Buffers ----

vesk_buffer* vesk_buffer_alloc(void) {
  auto* buffer = allocate<vesk_buffer>(__func__);
  if (buffer != nullptr) message_hooks().count_buffers(1);
  return buffer;
}

void vesk_buffer_free(vesk_buffer* buffer) {
  if (!exists(__func__, buffer)) return;
  message_hooks().count_buffers(-1);
  delete buffer;
}

int vesk_buffer_last_error(vesk_buffer* buffer) {
  return exists(__func__, buffer) ? buffer->parcel.error() : -EINVAL;
}

int vesk_buffer_assign(vesk_buffer* buffer, const void* data, size_t size) {
  if (buffer == nullptr || (data == nullptr && size != 0)) return -EINVAL;
  return as_error_code([&] {
    buffer->parcel.assign(data, size);
    return 0;
  });
}

size_t vesk_buffer_remaining(const vesk_buffer* buffer) {
  return buffer == nullptr ? 0 : buffer->parcel.remaining();
}

// ---- Writing ----

int vesk_write_i32(vesk_payload* payload, int32_t value) {
  return write(__func__, payload, [&](const Use&, Parcel& parcel) { return parcel.write_i32(value); });
}

int vesk_write_i64(vesk_payload* payload, int64_t value) {
  return write(__func__, payload, [&](const Use&, Parcel& parcel) { return parcel.write_i64(value); });
}

int vesk_write_f64(vesk_payload* payload, double value) {
  return write(__func__, payload, [&](const Use&, Parcel& parcel) { return parcel.write_f64(value); });
}

int vesk_write_utf16_cstring(vesk_payload* payload, const char* utf8) {
  return write(__func__, payload, [&](const Use& use, Parcel& parcel) {
    return use.has(utf8, "a null text") ? parcel.write_utf16(utf8) : -EINVAL;
  });
}

int vesk_write_array_length(vesk_payload* payload, int32_t length) {
  return write(__func__, payload, [&](const Use&, Parcel& parcel) { return parcel.write_i32(length); });
}

int vesk_write_endpoint(vesk_payload* payload, vesk_endpoint* endpoint) {
  return write(__func__, payload, [&](const Use& use, Parcel& parcel) {
    if (!use.has(endpoint, "a null endpoint")) return -EINVAL;
    if (!is_complete(*endpoint)) return parcel.fail(-EINVAL);
    if (parcel.error() != 0) return parcel.error();
    payload->endpoints.push_back(message_hooks().hold(endpoint));
    return parcel.write_endpoint_mark(static_cast<std::uint32_t>(payload->endpoints.size() - 1));
  });
}

// ---- Reading ----

int32_t vesk_read_i32(vesk_buffer* buffer) {
  return read(__func__, buffer, [](Parcel& parcel) { return parcel.read_i32(); });
}

int64_t vesk_read_i64(vesk_buffer* buffer) {
  return read(__func__, buffer, [](Parcel& parcel) { return parcel.read_i64(); });
}

double vesk_read_f64(vesk_buffer* buffer) {
  return read(__func__, buffer, [](Parcel& parcel) { return parcel.read_f64(); });
}

const uint16_t* vesk_read_utf16_string(vesk_buffer* buffer, unsigned int* length) {
  unsigned int ignored = 0;
  unsigned int* units = length == nullptr ? &ignored : length;
  *units = 0;
  return read(__func__, buffer, [&](Parcel& parcel) { return parcel.read_utf16(units); });
}

int32_t vesk_read_array_length(vesk_buffer* buffer) {
  return read(__func__, buffer, [](Parcel& parcel) { return parcel.read_i32(); });
}

}  // extern "C"
