#include "DeviceNameByHand.h"

#include <android/log.h>
#include <utils/String8.h>

#include <cstring>

namespace bench {
namespace {

constexpr const char* kTag = "OrvelDelegateClient:IDelegateService";
constexpr const char* kSelf = "device_name_by_hand";

void keep_handle(void* /*runtime*/, void* context, const char* /*name*/, vesk_handle handle) {
  static_cast<Connection*>(context)->handle = handle;
}

bool handle_is_set(Connection* connection) {
  pthread_mutex_lock(&connection->binder);
  const bool set = connection->handle.words[0] != 0;
  pthread_mutex_unlock(&connection->binder);
  return set;
}

// Sends the request and checks the head of the reply, all under the binder's lock.
bool call(Connection* connection, vesk_payload** request, vesk_buffer** reply) {
  bool good = false;
  pthread_mutex_lock(&connection->binder);
  *request = vesk_payload_alloc();
  *reply = vesk_buffer_alloc();
  if (*request != nullptr && *reply != nullptr) {
    vesk_write_i32(*request, 0);
    vesk_write_i32(*request, -1);
    vesk_write_i32(*request, 0x53595354);
    vesk_write_utf16_cstring(*request, "com.quarlo.orveldelegate.IDelegateService");
    const int error = vesk_payload_last_error(*request);
    if (error != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "%s:cannot write the request, error %d", kSelf, error);
    } else {
      const int result = vesk_call(connection->runtime, &connection->handle, 33, *request, *reply);
      good = result == 0 && vesk_read_i32(*reply) == 0;
      if (!good) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s:the call failed, error %d", kSelf, result);
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
  vesk_payload* request = nullptr;
  vesk_buffer* reply = nullptr;
  std::size_t length = 0;
  out[0] = '\0';
  pthread_mutex_lock(&connection->facade);
  if (handle_is_set(connection)) {
    pthread_mutex_lock(&connection->transaction);
    if (call(connection, &request, &reply)) {
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

}  // namespace bench
