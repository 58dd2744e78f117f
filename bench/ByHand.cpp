#include "ByHand.h"

#include <android/log.h>
#include <utils/String8.h>

#include <cstring>

namespace bench {
namespace {

constexpr const char* kTag = "OrvelDelegateClient:IDelegateService";

void keep_handle(void* /*runtime*/, void* context, const char* /*name*/, vesk_handle handle) {
  static_cast<Connection*>(context)->handle = handle;
}

bool handle_is_set(Connection* connection) {
  pthread_mutex_lock(&connection->binder);
  const bool set = connection->handle.words[0] != 0;
  pthread_mutex_unlock(&connection->binder);
  return set;
}

// Sends the request, with an intent or without, and checks the head of the reply, all under the binder's lock.
bool call(Connection* connection, const char* self, unsigned int code, const Broadcast* broadcast,
          vesk_payload** request, vesk_buffer** reply) {
  bool good = false;
  pthread_mutex_lock(&connection->binder);
  *request = vesk_payload_alloc();
  *reply = vesk_buffer_alloc();
  if (*request != nullptr && *reply != nullptr) {
    vesk_write_i32(*request, 0);
    vesk_write_i32(*request, -1);
    vesk_write_i32(*request, 0x53595354);
    vesk_write_utf16_cstring(*request, "com.quarlo.orveldelegate.IDelegateService");
    if (broadcast != nullptr) write_broadcast_by_hand(*request, broadcast);
    const int error = vesk_payload_last_error(*request);
    if (error != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "%s:cannot write the request, error %d", self, error);
    } else {
      const int result = vesk_call(connection->runtime, &connection->handle, code, *request, *reply);
      good = result == 0 && vesk_read_i32(*reply) == 0;
      if (!good) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s:the call failed, error %d", self, result);
    }
  }
  pthread_mutex_unlock(&connection->binder);
  return good;
}

void done(Connection* connection, vesk_payload* request, vesk_buffer* reply) {
  pthread_mutex_lock(&connection->binder);
  vesk_reply_done(connection->runtime, reply);
  vesk_payload_free(request);
  vesk_buffer_free(reply);
  pthread_mutex_unlock(&connection->binder);
}

}  // namespace

bool open_connection(Connection* connection) {
  *connection = {};
  for (pthread_mutex_t* mutex : {&connection->facade, &connection->transaction, &connection->binder}) {
    pthread_mutex_init(mutex, nullptr);
  }
  return vesk_get_runtime(&connection->runtime) == 0 &&
         vesk_service_bind(connection->runtime, "orvel_delegate", keep_handle, connection) == 0 &&
         handle_is_set(connection);
}

std::size_t device_name_by_hand(Connection* connection, char* out, std::size_t size) {
  static constexpr const char* kSelf = "device_name_by_hand";
  vesk_payload* request = nullptr;
  vesk_buffer* reply = nullptr;
  std::size_t length = 0;
  out[0] = '\0';
  pthread_mutex_lock(&connection->facade);
  if (handle_is_set(connection)) {
    pthread_mutex_lock(&connection->transaction);
    if (call(connection, kSelf, 33, nullptr, &request, &reply)) {
      unsigned int units = 0;
      const uint16_t* text = vesk_read_utf16_string(reply, &units);
      if (vesk_buffer_last_error(reply) == 0) {
        const android::String8 utf8(reinterpret_cast<const char16_t*>(text), units);
        length = std::strlen(utf8.string());
        if (length >= size) length = size - 1;
        std::memcpy(out, utf8.string(), length);
        out[length] = '\0';
      }
    }
    done(connection, request, reply);
    pthread_mutex_unlock(&connection->transaction);
    __android_log_print(ANDROID_LOG_INFO, kTag, "%s:Read device name", kSelf);
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:Device name is [%s]", kSelf, out);
  }
  pthread_mutex_unlock(&connection->facade);
  return length;
}

void write_broadcast_by_hand(vesk_payload* request, const Broadcast* broadcast) {
  // The lengths are filled in once they are known. The intent's counts itself, the extras' does not.
  const auto fill_in = [request](unsigned int at, unsigned int from) {
    const unsigned int end = vesk_payload_get_position(request);
    vesk_payload_set_position(request, at);
    vesk_write_i32(request, static_cast<int32_t>(end - from));
    vesk_payload_set_position(request, end);
  };
  vesk_write_i32(request, 1);
  const unsigned int intent = vesk_payload_get_position(request);
  vesk_write_i32(request, 0);
  vesk_write_utf16_cstring(request, broadcast->action);
  vesk_write_utf16_cstring(request, broadcast->data);
  vesk_write_i32(request, -1);
  vesk_write_utf16_cstring(request, broadcast->package);
  vesk_write_i32(request, 1);
  vesk_write_utf16_cstring(request, broadcast->package);
  vesk_write_utf16_cstring(request, broadcast->class_name);
  vesk_write_i32(request, 1);
  const unsigned int extras = vesk_payload_get_position(request);
  vesk_write_i32(request, 0);
  vesk_write_i32(request, 20);
  for (const Broadcast::Number& number : broadcast->numbers) {
    vesk_write_utf16_cstring(request, number.key);
    vesk_write_i32(request, 1);
    vesk_write_i32(request, number.value);
  }
  for (const Broadcast::Text& text : broadcast->texts) {
    vesk_write_utf16_cstring(request, text.key);
    vesk_write_i32(request, 0);
    vesk_write_utf16_cstring(request, text.value);
  }
  fill_in(extras, extras + sizeof(int32_t));
  vesk_write_array_length(request, 0);
  vesk_write_i32(request, 0);
  fill_in(intent, intent);
}

bool broadcast_by_hand(Connection* connection, const Broadcast* broadcast) {
  static constexpr const char* kSelf = "broadcast_by_hand";
  vesk_payload* request = nullptr;
  vesk_buffer* reply = nullptr;
  bool sent = false;
  pthread_mutex_lock(&connection->facade);
  __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:Broadcasting intent with action=[%s], package=[%s], class=[%s]",
                      kSelf, broadcast->action, broadcast->package, broadcast->class_name);
  if (handle_is_set(connection)) {
    pthread_mutex_lock(&connection->transaction);
    sent = call(connection, kSelf, 27, broadcast, &request, &reply);
    done(connection, request, reply);
    pthread_mutex_unlock(&connection->transaction);
  }
  __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:Intent broadcasted, status=%d", kSelf, sent ? 1 : 0);
  pthread_mutex_unlock(&connection->facade);
  return sent;
}

}  // namespace bench
