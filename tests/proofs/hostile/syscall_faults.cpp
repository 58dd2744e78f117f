// orvel-syscall-faults: one system call of the host runtime fails, the n-th use of one function with one error, while a fixed
// sequence of everything that a process does with the runtime goes by. Whatever fails says so; afterwards the same sequence works
// in the same process, and it holds no more descriptors than before.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Inputs.h"
#include "Process.h"
#include "vesk/vesk.h"
#include "vesk/vesk_service.h"

namespace {

// Which use of which function fails, and how. The functions below stand in for libc's in the whole process, sd-bus and
// sd-event included.
struct Fault {
  std::atomic<const char*> function{nullptr};
  std::atomic<int> left{0};  // uses until it fails; below 0 it has failed
  std::atomic<int> error{0};
} fault;

bool fails(const char* function) {
  const char* chosen = fault.function;
  if (chosen == nullptr || std::string_view(chosen) != function || --fault.left != -1) return false;
  errno = fault.error;
  return true;
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

#define STAND_IN(type, name, parameters, arguments)                        \
  extern "C" __attribute__((visibility("default"))) type name parameters { \
    static auto* const libc = real<type parameters>(#name);                \
    return fails(#name) ? type(-1) : libc arguments;                       \
  }

STAND_IN(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
STAND_IN(int, socketpair, (int domain, int type, int protocol, int* ends), (domain, type, protocol, ends))
STAND_IN(int, connect, (int socket, const sockaddr* address, socklen_t size), (socket, address, size))
STAND_IN(int, bind, (int socket, const sockaddr* address, socklen_t size), (socket, address, size))
STAND_IN(int, listen, (int socket, int backlog), (socket, backlog))
STAND_IN(int, accept4, (int socket, sockaddr* address, socklen_t* size, int flags), (socket, address, size, flags))
STAND_IN(int, getsockopt, (int socket, int level, int option, void* value, socklen_t* size),
         (socket, level, option, value, size))
STAND_IN(int, mkdir, (const char* path, mode_t mode), (path, mode))
STAND_IN(int, symlinkat, (const char* target, int directory, const char* path), (target, directory, path))
STAND_IN(int, renameat, (int from, const char* path, int to, const char* other), (from, path, to, other))
STAND_IN(ssize_t, readlinkat, (int directory, const char* path, char* target, size_t size),
         (directory, path, target, size))
STAND_IN(int, fstat, (int descriptor, struct stat* status), (descriptor, status))
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"  // there is a struct of that name too
STAND_IN(int, flock, (int descriptor, int operation), (descriptor, operation))
#pragma GCC diagnostic pop
STAND_IN(int, epoll_create1, (int flags), (flags))
STAND_IN(int, epoll_wait, (int epoll, epoll_event* events, int most, int limit), (epoll, events, most, limit))
STAND_IN(int, poll, (pollfd * descriptors, nfds_t count, int limit), (descriptors, count, limit))
STAND_IN(int, inotify_init1, (int flags), (flags))
STAND_IN(int, inotify_add_watch, (int inotify, const char* path, std::uint32_t mask), (inotify, path, mask))

// The same for what takes a variable argument, and for what may do less than it was asked to.
extern "C" __attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
  static auto* const libc = real<int(const char*, int, ...)>("open");
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int);
  va_end(rest);
  return fails("open") ? -1 : libc(path, flags, mode);
}
extern "C" __attribute__((visibility("default"))) int openat(int directory, const char* path, int flags, ...) {
  static auto* const libc = real<int(int, const char*, int, ...)>("openat");
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int);
  va_end(rest);
  return fails("openat") ? -1 : libc(directory, path, flags, mode);
}
extern "C" __attribute__((visibility("default"))) int fcntl(int descriptor, int command, ...) {
  static auto* const libc = real<int(int, int, ...)>("fcntl");
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return fails("fcntl") ? -1 : libc(descriptor, command, argument);
}
// Adding alone: the kernel has no reason to fail the rest, and sd-event relies on that.
extern "C" __attribute__((visibility("default"))) int epoll_ctl(int epoll, int operation, int descriptor,
                                                                epoll_event* event) {
  static auto* const libc = real<int(int, int, int, epoll_event*)>("epoll_ctl");
  return operation == EPOLL_CTL_ADD && fails("epoll_ctl") ? -1 : libc(epoll, operation, descriptor, event);
}
constexpr int kShort = 0;  // in place of an error: one byte only
extern "C" __attribute__((visibility("default"))) ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  static auto* const libc = real<ssize_t(int, const msghdr*, int)>("sendmsg");
  if (!fails("sendmsg")) return libc(socket, message, flags);
  if (errno != kShort) return -1;
  msghdr less = *message;
  iovec byte{message->msg_iov[0].iov_base, 1};
  less.msg_iov = &byte;
  less.msg_iovlen = 1;
  return libc(socket, &less, flags);
}
extern "C" __attribute__((visibility("default"))) ssize_t recvmsg(int socket, msghdr* message, int flags) {
  static auto* const libc = real<ssize_t(int, msghdr*, int)>("recvmsg");
  if (!fails("recvmsg")) return libc(socket, message, flags);
  if (errno != kShort) return -1;
  iovec* const whole = message->msg_iov;
  const std::size_t pieces = message->msg_iovlen;
  iovec byte{whole[0].iov_base, 1};
  message->msg_iov = &byte;
  message->msg_iovlen = 1;
  const ssize_t size = libc(socket, message, flags);
  message->msg_iov = whole;
  message->msg_iovlen = pieces;
  return size;
}

namespace orvel::hostile {
namespace {

namespace fs = std::filesystem;

constexpr int kLimitMs = 800;
// What the end of a sequence may leave for the next loop to close.
constexpr std::size_t kMostLeftOpen = 2;
constexpr char kAbsent[] = "faults.late";
constexpr char kOwn[] = "faults.own";

struct Kind {
  const char* function;
  std::vector<int> errors;
  int first = 1;  // use that fails
};
const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = {
      {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM}},
      {"socketpair", {EMFILE, ENFILE, ENOMEM}},
      {"connect", {EAGAIN, EINTR, ENOMEM}},
      // The first asks whether the device lives, whose word is taken for it.
      {"connect", {ECONNREFUSED, ENOENT}, 2},
      {"bind", {EADDRINUSE, ENOSPC, EROFS, ENOMEM}},
      {"listen", {EADDRINUSE, ENOBUFS}},
      {"accept4", {EINTR, EMFILE, ENFILE, ECONNABORTED, ENOBUFS, ENOMEM}},
      {"getsockopt", {ENOBUFS}},
      {"mkdir", {ENOSPC, EACCES, EROFS, ENAMETOOLONG}},
      {"symlinkat", {ENOSPC, EEXIST, EROFS}},
      {"renameat", {ENOSPC, EACCES}},
      {"readlinkat", {EACCES, ENOMEM}},
      {"fstat", {ENOMEM, EOVERFLOW}},
      {"flock", {EINTR, ENOLCK}},
      {"open", {EMFILE, ENFILE, EACCES, EINTR}},
      {"openat", {EMFILE, ENFILE, ENOSPC, EINTR}},
      {"fcntl", {EMFILE, EINVAL, ENOLCK, EINTR}},
      {"sendmsg", {EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOMEM, kShort}},
      {"recvmsg", {EAGAIN, ECONNRESET, ENOMEM, kShort}},
      {"epoll_create1", {EMFILE, ENOMEM}},
      {"epoll_ctl", {ENOMEM, ENOSPC}},
      {"epoll_wait", {EINTR}},
      {"poll", {EINTR, ENOMEM}},
      {"inotify_init1", {EMFILE, ENFILE, ENOMEM}},
      {"inotify_add_watch", {ENOSPC, ENOMEM}},
  };
  return all;
}

// An endpoint that counts what holds it, and may be called.
struct Counted {
  static int call(void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer*, vesk_payload* reply) {
    return vesk_write_i32(reply, 0);
  }
  static int oneway(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer*) {
    ++static_cast<Counted*>(endpoint->context)->calls;
    return 0;
  }
  static int acquire(void*, vesk_endpoint* endpoint) {
    return ++static_cast<Counted*>(endpoint->context)->references, 0;
  }
  static int release(void*, vesk_endpoint* endpoint) {
    return --static_cast<Counted*>(endpoint->context)->references, 0;
  }
  static constexpr vesk_endpoint_fn kFunctions{call, oneway, acquire, release};

  std::atomic<int> references{0};
  std::atomic<int> calls{0};
  vesk_endpoint endpoint{&kFunctions, this};
};

struct Mourner {
  static void died(void*, vesk_death_callback*, vesk_handle*) {}
  static void acquire(vesk_death_callback* linked) { ++static_cast<Mourner*>(linked->context)->references; }
  static void release(vesk_death_callback* linked) { --static_cast<Mourner*>(linked->context)->references; }

  std::atomic<int> references{0};
  vesk_death_callback callback{died, acquire, release, this};
};

// What one run of the sequence came to.
struct Outcome {
  std::string failed;  // the first step that did not do what it ought to
  int references = 0;
};

// Everything that a process does with the runtime, one step after the other, each as far as it goes.
class Sequence {
 public:
  Outcome run() {
    void* runtime = nullptr;
    expect("serve", vesk_serve_device(&runtime));
    void* again = nullptr;
    expect("get_runtime", vesk_get_runtime(&again));
    if (runtime == nullptr) runtime = again;
    if (runtime == nullptr) return outcome();
    std::thread loop([runtime] { vesk_run_loop(runtime); });
    expect("register", vesk_service_register(runtime, kOwn, &m_own.endpoint));
    // Bound before it is there.
    std::promise<void> late;
    m_bound = &late;
    expect("bind", vesk_service_bind(runtime, kAbsent, bound, this));
    expect("register", vesk_service_register(runtime, kAbsent, &m_own.endpoint));
    expect("late bind", late.get_future().wait_for(std::chrono::milliseconds(4 * kLimitMs)) == std::future_status::ready
                            ? 0
                            : -ETIMEDOUT);

    for (const char* name : {kOwn, kPower.name}) {
      vesk_handle handle{};
      expect("look up", vesk_binder_servicemanager_get(runtime, name, &handle));
      if (vesk_handle_is_valid(runtime, &handle) == 0) continue;
      expect("link", vesk_handle_link_to_death(runtime, &handle, &m_mourner.callback));
      expect("call", call(runtime, handle, 3, kPower, nullptr));
      vesk_service_unbind(runtime, &handle);
    }
    // A callback: registered with the device, which is then told to call.
    vesk_handle delegate{};
    expect("look up", vesk_binder_servicemanager_get(runtime, kDelegate.name, &delegate));
    expect("call", call(runtime, delegate, 28, kDelegate, &m_receiver.endpoint));
    expect("call", call(runtime, delegate, 27, kDelegate, nullptr));
    for (int n = 0; n < kLimitMs && m_failed.empty() && m_receiver.calls == 0; ++n)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    expect("callback", m_receiver.calls != 0 ? 0 : -ETIMEDOUT);
    vesk_service_unbind(runtime, &delegate);
    expect("withdraw", vesk_service_withdraw(runtime, kAbsent));
    expect("shutdown", vesk_shutdown(runtime));
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_bound = nullptr;
    }
    loop.join();
    if (vesk_handle_is_valid(runtime, &m_late) != 0) vesk_service_unbind(runtime, &m_late);
    return outcome();
  }

 private:
  Outcome outcome() const { return {m_failed, m_own.references + m_receiver.references + m_mourner.references}; }
  void expect(const char* step, int error) {
    if (error != 0 && m_failed.empty()) m_failed = std::string(step) + ": " + std::strerror(-error);
  }

  static void bound(void* runtime, void* self, const char*, vesk_handle handle) {
    auto& sequence = *static_cast<Sequence*>(self);
    const std::lock_guard<std::mutex> lock(sequence.m_mutex);
    if (sequence.m_bound == nullptr) {
      vesk_service_unbind(runtime, &handle);
      return;
    }
    sequence.m_late = handle;
    sequence.m_bound->set_value();
  }

  static int call(void* runtime, vesk_handle handle, unsigned code, const ServiceName& service,
                  vesk_endpoint* endpoint) {
    vesk_payload* request = vesk_payload_alloc();
    vesk_buffer* reply = vesk_buffer_alloc();
    for (const std::int32_t word : {0, -1, 0x53595354}) vesk_write_i32(request, word);
    vesk_write_utf16_cstring(request, service.descriptor);
    if (endpoint != nullptr) {
      vesk_write_utf16_cstring(request, "faults");
      vesk_write_i32(request, 0);
      vesk_write_i32(request, 0);
      vesk_write_endpoint(request, endpoint);
    } else if (code == 27) {
      // An intent with an action and nothing else: present, its length, four texts, no component, extras, categories, flags.
      for (const std::int32_t word : {1, 52}) vesk_write_i32(request, word);
      vesk_write_utf16_cstring(request, "faults");
      for (const std::int32_t word : {-1, -1, -1, 0, 0, -1, 0}) vesk_write_i32(request, word);
    }
    int error = vesk_call(runtime, &handle, code, request, reply);
    if (error == 0 && vesk_read_i32(reply) != 0) error = -EBADMSG;
    vesk_reply_done(runtime, reply);
    vesk_buffer_free(reply);
    vesk_payload_free(request);
    return error;
  }

  std::string m_failed;  // the first step that failed, and how
  std::mutex m_mutex;
  std::promise<void>* m_bound = nullptr;
  vesk_handle m_late{};
  Counted m_own, m_receiver;
  Mourner m_mourner;
};

// What each open descriptor is.
std::string list_descriptors() {
  std::string list;
  std::error_code closed;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    list += ' ' + fs::read_symlink(entry.path(), closed).string();
  }
  return list;
}

std::size_t open_descriptors() {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

class Faults {
 public:
  Faults(std::uint64_t seed, int most) : m_random(seed), m_seed(seed), m_most(most) {}

  int run(const std::string& only) {
    Sequence warm;
    if (!warm.run().failed.empty()) {
      std::cout << "FAILED: the sequence does not work without a fault" << std::endl;
      return 1;
    }
    { Sequence().run(); }
    m_descriptors = open_descriptors();
    for (const Kind& kind : kinds()) {
      if (!only.empty() && only != kind.function) continue;
      for (const int error : kind.errors) run_each(kind.function, error, kind.first);
    }
    std::cout << "orvel-syscall-faults: seed " << m_seed << ", " << kinds().size() << " functions, " << m_faults
              << " faults, " << m_noticed << " noticed by the caller, " << m_failures << " without recovery"
              << (m_failures == 0 ? ": ok" : ": FAILED") << std::endl;
    return m_failures == 0 ? 0 : 1;
  }

 private:
  // n = 1, 2, ... until the sequence does not come so far; beyond `m_most` by chance, further and further apart.
  void run_each(const char* function, int error, int first) {
    for (int n = first; inject(function, error, n);
         n += n < m_most ? 1 : 1 + static_cast<int>(m_random() % static_cast<unsigned>(n))) {
    }
  }

  bool inject(const char* function, int error, int n) {
    fault.error = error;
    fault.left = n - 1;
    fault.function = function;
    const auto start = std::chrono::steady_clock::now();
    Outcome during;
    Outcome after;
    Sequence broken;
    during = broken.run();
    const bool reached = fault.left < 0;
    fault.function = nullptr;
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    if (!reached) return false;
    ++m_faults;
    if (!during.failed.empty()) ++m_noticed;
    Sequence whole;
    after = whole.run();
    const auto fail = [&](const std::string& what) {
      ++m_failures;
      std::cout << "FAILED " << function << " number " << n << " with "
                << (error == kShort ? "one byte only" : std::strerror(error)) << ": " << what << " (--seed " << m_seed
                << " --only " << function << ")" << std::endl;
    };
    if (!after.failed.empty()) fail("the sequence does not work afterwards: " + after.failed);
    if (took > 20 * kLimitMs) fail("it took " + std::to_string(took) + " ms");
    if (during.references != 0) fail(std::to_string(during.references) + " references are still held");
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (open_descriptors() > m_descriptors + kMostLeftOpen && std::chrono::steady_clock::now() < limit)
      std::this_thread::yield();
    if (const std::size_t now = open_descriptors(); now > m_descriptors + kMostLeftOpen) {
      fail(std::to_string(now) + " descriptors, before " + std::to_string(m_descriptors) + ":" + list_descriptors());
    }
    return true;
  }

  std::mt19937_64 m_random;
  std::uint64_t m_seed;
  int m_most;
  std::size_t m_descriptors = 0;
  int m_faults = 0;
  int m_noticed = 0;
  int m_failures = 0;
};

int run(std::uint64_t seed, int most, const std::string& only) {
  std::string workplace = "/tmp/orvel-faults-XXXXXX";
  if (::mkdtemp(workplace.data()) == nullptr) return 2;
  ::setenv("ORVEL_RUNTIME_DIR", (workplace + "/device").c_str(), 1);
  ::setenv("ORVEL_CALL_TIMEOUT_MS", std::to_string(kLimitMs).c_str(), 1);
  int status = 2;
  {
    Process device({ORVEL_SIM, "run"}, {}, workplace + "/log");
    if (!device.read_line(10'000).empty()) status = Faults(seed, most).run(only);
    if (device.terminate(5000) != 0) {
      std::cout << "FAILED: the device has suffered" << std::endl;
      status = 1;
    }
  }
  std::error_code ignored;
  fs::remove_all(workplace, ignored);
  return status;
}

}  // namespace
}  // namespace orvel::hostile

int main(int argc, char** argv) {
  std::uint64_t seed = 1;
  int most = 12;
  std::string only;
  CLI::App app("One system call of the host runtime fails at a time");
  app.add_option("--seed", seed, "of how the later uses are chosen")->capture_default_str();
  app.add_option("--count", most, "how many uses of each function fail before they are chosen by chance")
      ->capture_default_str();
  app.add_option("--only", only, "one function");
  CLI11_PARSE(app, argc, argv);
  try {
    return orvel::hostile::run(seed, most, only);
  } catch (const std::exception& error) {
    std::cerr << "orvel-syscall-faults: " << error.what() << std::endl;
    return 2;
  }
}
