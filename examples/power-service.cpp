// The power service of a device, from the C headers of libvesk alone: a skeleton for services of one's own.
//
//   orvel-sim run --without power                            the rest of a device, in another terminal
//   power-service                                            until Ctrl-C
//   orvelctl screen; orvelctl wake-lock full; orvelctl screen
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

namespace {

constexpr char kName[] = "com.quarlo.orvel.powermanager";
constexpr char kDescriptor[] = "com.quarlo.orveldelegate.powermanager.IPowerManagerService";

enum Transaction : unsigned { kIsInteractive = 1, kWakeUpDevice = 2, kGetVersion = 3, kWakeUpDeviceCustom = 4 };

// What a request, a reply, and an exception of every service begin with.
constexpr int kHeader[] = {0, -1, 0x53595354};
constexpr int kNoException = 0, kOtherInterface = -1, kUnreadable = -2, kNoSuchTransaction = -7;

bool g_screenOn = false;

bool readsAs(vesk_buffer* request, const char* text) {
  unsigned length = 0;
  const uint16_t* units = vesk_read_utf16_string(request, &length);
  return units != nullptr &&
         std::vector<uint16_t>(units, units + length) == std::vector<uint16_t>(text, text + std::strlen(text));
}

bool readHeader(vesk_buffer* request) {
  for (const int word : kHeader) {
    if (vesk_read_i32(request) != word) return false;
  }
  return readsAs(request, kDescriptor);
}

int throwException(vesk_payload* reply, int code, const char* message) {
  vesk_write_i32(reply, code);
  vesk_write_utf16_cstring(reply, message);
  return vesk_write_i32(reply, 0);  // no stack trace
}

// A number as the result; the results of this service are nothing else.
int answer(vesk_payload* reply, int number) {
  vesk_write_i32(reply, kNoException);
  return vesk_write_i32(reply, number);
}

// Runs on the thread that is inside vesk_run_loop, one call at a time. What it returns is not the exception of the
// service but the failure of the call: 0 brings the caller the reply.
int call(void*, vesk_endpoint*, unsigned code, vesk_identity*, vesk_buffer* request, vesk_payload* reply) {
  if (!readHeader(request)) return throwException(reply, kOtherInterface, "not a request for the power manager");
  switch (code) {
    case kIsInteractive:
      return answer(reply, g_screenOn ? 1 : 0);
    case kWakeUpDevice:
      g_screenOn = true;
      return vesk_write_i32(reply, kNoException);
    case kGetVersion:
      return answer(reply, 2);
    case kWakeUpDeviceCustom: {
      vesk_read_i32(request);  // the kind, of which there is one
      const long long milliseconds = vesk_read_i64(request);
      if (vesk_buffer_last_error(request) != 0) return throwException(reply, kUnreadable, "wakeUpDeviceCustom");
      std::printf("awake for %lld ms\n", milliseconds);
      return vesk_write_i32(reply, kNoException);
    }
    default:
      return throwException(reply, kNoSuchTransaction, "no such transaction");
  }
}

int callOneway(void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer*) {
  return 0;  // no transaction of this service is one-way
}

// The endpoint lives as long as the process, so that the references to it need not be counted.
int count(void*, vesk_endpoint*) {
  return 0;
}

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  sigset_t end;  // before there is a second thread, so that none takes them
  sigemptyset(&end);
  for (const int signal : {SIGINT, SIGTERM}) sigaddset(&end, signal);
  pthread_sigmask(SIG_BLOCK, &end, nullptr);

  void* runtime = nullptr;
  if (vesk_serve_device(&runtime) != 0) return 1;  // libvesk has said why
  constexpr vesk_endpoint_fn kFunctions = {call, callOneway, count, count};
  vesk_endpoint endpoint = {&kFunctions, nullptr};
  if (const int error = vesk_service_register(runtime, kName, &endpoint); error != 0) {
    std::fprintf(stderr, "power-service: %s: %s\n", kName,
                 error == -EADDRINUSE ? "another process serves it; try: orvel-sim kill power" : std::strerror(-error));
    return 1;
  }
  std::printf("serving %s in %s\n", kName, vesk_runtime_directory());
  std::thread loop([&] { vesk_run_loop(runtime); });
  int signal = 0;
  sigwait(&end, &signal);
  vesk_shutdown(runtime);  // withdraws the name, and ends the loop
  loop.join();
}
