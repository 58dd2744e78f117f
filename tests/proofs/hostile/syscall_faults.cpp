// One system call of the host runtime fails, the n-th use of one function with one error, while a fixed sequence of
// everything that a process does with the runtime goes by. Afterwards the same sequence works in the same process, and
// the process holds no more references and descriptors than before.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Calls.h"
#include "support/Process.h"
#include "support/Runner.h"

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

// A function and how it fails, from the `first` use on. Each is in the list by being there.
struct Kind {
  Kind(const char* of, std::vector<int> with, int from = 1) : function(of), errors(std::move(with)), first(from) {
    all().push_back(this);
  }
  static std::vector<const Kind*>& all() {
    static std::vector<const Kind*> s_kinds;
    return s_kinds;
  }

  const char* function;
  std::vector<int> errors;
  int first;
};

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))
// A function that stands in for libc's, and the errors with which it fails.
#define STAND_IN(type, name, parameters, arguments, ...)    \
  EXPORTED type name parameters {                           \
    static auto* const libc = real<type parameters>(#name); \
    return fails(#name) ? type(-1) : libc arguments;        \
  }                                                         \
  const Kind kind_of_##name(#name, {__VA_ARGS__});
// With one argument more, which may be absent.
#define STAND_IN_VARIADIC(name, last, parameters, arguments, ...) \
  EXPORTED int name parameters {                                  \
    static auto* const libc = real<int parameters>(#name);        \
    va_list rest;                                                 \
    va_start(rest, last);                                         \
    void* const argument = va_arg(rest, void*);                   \
    va_end(rest);                                                 \
    return fails(#name) ? -1 : libc arguments;                    \
  }                                                               \
  const Kind kind_of_##name(#name, {__VA_ARGS__});

STAND_IN(int, socket, (int domain, int type, int protocol), (domain, type, protocol), EMFILE, ENFILE, ENOBUFS, ENOMEM)
STAND_IN(int, socketpair, (int domain, int type, int protocol, int* ends), (domain, type, protocol, ends), EMFILE,
         ENFILE, ENOMEM)
STAND_IN(int, connect, (int socket, const sockaddr* address, socklen_t size), (socket, address, size), EAGAIN, EINTR,
         ENOMEM)
// The first asks whether the device lives, whose word is taken for it.
const Kind kNoPeer("connect", {ECONNREFUSED, ENOENT}, 2);
STAND_IN(int, bind, (int socket, const sockaddr* address, socklen_t size), (socket, address, size), EADDRINUSE, ENOSPC,
         EROFS, ENOMEM)
STAND_IN(int, listen, (int socket, int backlog), (socket, backlog), EADDRINUSE, ENOBUFS)
STAND_IN(int, accept4, (int socket, sockaddr* address, socklen_t* size, int flags), (socket, address, size, flags),
         EINTR, EMFILE, ENFILE, ECONNABORTED, ENOBUFS, ENOMEM)
STAND_IN(int, getsockopt, (int socket, int level, int option, void* value, socklen_t* size),
         (socket, level, option, value, size), ENOBUFS)
STAND_IN(int, mkdir, (const char* path, mode_t mode), (path, mode), ENOSPC, EACCES, EROFS, ENAMETOOLONG)
STAND_IN(int, symlinkat, (const char* target, int directory, const char* path), (target, directory, path), ENOSPC,
         EEXIST, EROFS)
STAND_IN(int, renameat, (int from, const char* path, int to, const char* other), (from, path, to, other), ENOSPC,
         EACCES)
STAND_IN(ssize_t, readlinkat, (int directory, const char* path, char* target, size_t size),
         (directory, path, target, size), EACCES, ENOMEM)
STAND_IN(int, fstat, (int descriptor, struct stat* status), (descriptor, status), ENOMEM, EOVERFLOW)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"  // there is a struct of that name too
STAND_IN(int, flock, (int descriptor, int operation), (descriptor, operation), EINTR, ENOLCK)
#pragma GCC diagnostic pop
STAND_IN(int, epoll_create1, (int flags), (flags), EMFILE, ENOMEM)
STAND_IN(int, epoll_wait, (int epoll, epoll_event* events, int most, int limit), (epoll, events, most, limit), EINTR)
STAND_IN(int, poll, (pollfd * descriptors, nfds_t count, int limit), (descriptors, count, limit), EINTR, ENOMEM)
STAND_IN(int, inotify_init1, (int flags), (flags), EMFILE, ENFILE, ENOMEM)
STAND_IN(int, inotify_add_watch, (int inotify, const char* path, std::uint32_t mask), (inotify, path, mask), ENOSPC,
         ENOMEM)
STAND_IN_VARIADIC(open, flags, (const char* path, int flags, ...), (path, flags, argument), EMFILE, ENFILE, EACCES,
                  EINTR)
STAND_IN_VARIADIC(openat, flags, (int directory, const char* path, int flags, ...), (directory, path, flags, argument),
                  EMFILE, ENFILE, ENOSPC, EINTR)
STAND_IN_VARIADIC(fcntl, command, (int descriptor, int command, ...), (descriptor, command, argument), EMFILE, EINVAL,
                  ENOLCK, EINTR)
// Adding alone: the kernel has no reason to fail the rest, and sd-event relies on that.
EXPORTED int epoll_ctl(int epoll, int operation, int descriptor, epoll_event* event) {
  static auto* const libc = real<int(int, int, int, epoll_event*)>("epoll_ctl");
  return operation == EPOLL_CTL_ADD && fails("epoll_ctl") ? -1 : libc(epoll, operation, descriptor, event);
}
const Kind kind_of_epoll_ctl("epoll_ctl", {ENOMEM, ENOSPC});

constexpr int kShort = 0;  // in place of an error: one byte only
template <typename Message>
ssize_t transfer(const char* name, int socket, Message* message, int flags) {
  auto* const libc = real<ssize_t(int, Message*, int)>(name);
  if (!fails(name)) return libc(socket, message, flags);
  if (errno != kShort) return -1;
  msghdr less = *message;
  iovec byte{message->msg_iov[0].iov_base, 1};
  less.msg_iov = &byte;
  less.msg_iovlen = 1;
  const ssize_t size = libc(socket, &less, flags);
  if constexpr (!std::is_const_v<Message>) {  // what was received says so
    message->msg_controllen = less.msg_controllen;
    message->msg_flags = less.msg_flags;
  }
  return size;
}
EXPORTED ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  return transfer("sendmsg", socket, message, flags);
}
EXPORTED ssize_t recvmsg(int socket, msghdr* message, int flags) {
  return transfer("recvmsg", socket, message, flags);
}
const Kind kind_of_sendmsg("sendmsg", {EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOMEM, kShort});
const Kind kind_of_recvmsg("recvmsg", {EAGAIN, ECONNRESET, ENOMEM, kShort});

namespace orvel::hostile {
namespace {

constexpr int kLimitMs = 800;
constexpr std::size_t kMostLeftOpen = 2;  // what the end of a sequence may leave for the next loop to close
constexpr char kAbsent[] = "faults.late";
constexpr char kOwn[] = "faults.own";

// An endpoint and a death callback that count what holds them.
struct Counted {
  static int call(void*, vesk_endpoint*, unsigned, vesk_identity*, vesk_buffer*, vesk_payload* reply) {
    return vesk_write_i32(reply, 0);
  }
  static int oneway(void*, vesk_endpoint* endpoint, unsigned, vesk_identity*, vesk_buffer*) {
    ++static_cast<Counted*>(endpoint->context)->calls;
    return 0;
  }
  static int count(vesk_endpoint* endpoint, int by) {
    static_cast<Counted*>(endpoint->context)->references += by;
    return 0;
  }
  static constexpr vesk_endpoint_fn kFunctions{call, oneway, [](void*, vesk_endpoint* self) { return count(self, 1); },
                                               [](void*, vesk_endpoint* self) { return count(self, -1); }};

  std::atomic<int> references{0};
  std::atomic<int> calls{0};
  vesk_endpoint endpoint{&kFunctions, this};
  vesk_death_callback death{[](void*, vesk_death_callback*, vesk_handle*) {},
                            [](vesk_death_callback* self) { ++static_cast<Counted*>(self->context)->references; },
                            [](vesk_death_callback* self) { --static_cast<Counted*>(self->context)->references; },
                            this};
};

// Everything that a process does with the runtime, one step after the other, each as far as it goes.
class Sequence {
 public:
  // Returns the first step that failed, and how; empty when all worked.
  std::string run() {
    void* runtime = nullptr;
    expect("serve", vesk_serve_device(&runtime));
    void* again = nullptr;
    expect("get_runtime", vesk_get_runtime(&again));
    if (runtime == nullptr) runtime = again;
    if (runtime == nullptr) return m_failed;
    std::thread loop([runtime] { vesk_run_loop(runtime); });
    expect("register", vesk_service_register(runtime, kOwn, &m_own.endpoint));
    // Bound before it is there.
    expect("bind", vesk_service_bind(runtime, kAbsent, bound, this));
    expect("register", vesk_service_register(runtime, kAbsent, &m_own.endpoint));
    expect_soon("late bind", [this] { return m_is_bound.load(); });
    for (const char* name : {kOwn, test::kServices[test::kPower]}) {
      vesk_handle handle{};
      expect("look up", vesk_binder_servicemanager_get(runtime, name, &handle));
      if (vesk_handle_is_valid(runtime, &handle) == 0) continue;
      expect("link", vesk_handle_link_to_death(runtime, &handle, &m_own.death));
      expect_call(runtime, handle, 3, request_to(test::kPower));
      vesk_service_unbind(runtime, &handle);
    }
    // A callback: registered with the device, which is then told to call.
    vesk_handle delegate{};
    expect("look up", vesk_binder_servicemanager_get(runtime, test::kServices[test::kDelegate], &delegate));
    expect_call(runtime, delegate, 28, request_to(test::kDelegate, "'faults' 0 0"), &m_receiver.endpoint);
    expect_call(runtime, delegate, 27, request_to(test::kDelegate, "1 52 'faults' ~ ~ ~ 0 0 ~ 0"));
    expect_soon("callback", [this] { return m_receiver.calls != 0; });
    vesk_service_unbind(runtime, &delegate);
    expect("withdraw", vesk_service_withdraw(runtime, kAbsent));
    expect("shutdown", vesk_shutdown(runtime));
    loop.join();
    if (vesk_handle_is_valid(runtime, &m_late) != 0) vesk_service_unbind(runtime, &m_late);
    return m_failed;
  }

  [[nodiscard]] int references() const { return m_own.references + m_receiver.references; }

 private:
  void expect(const char* step, int error) {
    if (error != 0 && m_failed.empty()) m_failed = std::string(step) + ": " + std::strerror(-error);
  }

  template <typename Condition>
  void expect_soon(const char* step, const Condition& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(4 * kLimitMs);
    while (m_failed.empty() && !holds() && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    expect(step, holds() ? 0 : -ETIMEDOUT);
  }

  void expect_call(void* runtime, vesk_handle handle, unsigned code, const test::Bytes& bytes,
                   vesk_endpoint* endpoint = nullptr) {
    const test::BufferPtr reply(vesk_buffer_alloc());
    const int error = call(runtime, handle, code, bytes, endpoint, reply.get());
    expect("call", error != 0 || vesk_read_i32(reply.get()) == 0 ? error : -EBADMSG);
    vesk_reply_done(runtime, reply.get());
  }

  // Runs no more once vesk_shutdown has returned, and only then is the handle used.
  static void bound(void*, void* self, const char*, vesk_handle handle) {
    auto& sequence = *static_cast<Sequence*>(self);
    sequence.m_late = handle;
    sequence.m_is_bound = true;
  }

  std::string m_failed;
  vesk_handle m_late{};
  std::atomic<bool> m_is_bound{false};
  Counted m_own, m_receiver;
};

std::size_t open_descriptors() {
  return test::usageOf(::getpid()).descriptors;
}

int g_faults = 0;
int g_noticed = 0;

// Makes the n-th use of the function fail. False when the sequence does not come so far.
bool inject(const char* function, int error, int n) {
  static const std::size_t s_descriptors = open_descriptors();  // behind the first sequences, which work
  const std::string name = std::string(function) + ' ' + (error == kShort ? "one byte only" : std::strerror(error));
  test::begin(name + ", use " + std::to_string(n));
  fault.error = error;
  fault.left = n - 1;
  fault.function = function;
  Sequence broken;
  if (!broken.run().empty()) ++g_noticed;
  const bool reached = fault.left < 0;
  fault.function = nullptr;
  if (!reached) return false;
  ++g_faults;
  const std::string after = Sequence().run();
  test::require(after.empty(), "the sequence does not work afterwards: " + after);
  test::require(broken.references() == 0, std::to_string(broken.references()) + " references are still held");
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (open_descriptors() > s_descriptors + kMostLeftOpen && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  const std::size_t open = open_descriptors();
  test::require(open <= s_descriptors + kMostLeftOpen,
                std::to_string(open) + " descriptors, before " + std::to_string(s_descriptors));
  return true;
}

// The first uses one after the other, and then some by chance, further and further apart.
void inject_each(const Kind& kind, int most, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  for (const int error : kind.errors) {
    for (int n = kind.first; inject(kind.function, error, n);) {
      n += n < most ? 1 : 1 + static_cast<int>(random() % static_cast<unsigned>(n));
    }
  }
}

int run(int argc, char** argv) {
  test::Runner runner("orvel-syscall-faults", "One system call of the host runtime fails at a time", 12);
  if (const auto status = runner.parse(argc, argv)) return *status;
  const test::TemporaryDirectory workplace;
  ::setenv("ORVEL_RUNTIME_DIR", (workplace.path() / "device").c_str(), 1);
  ::setenv("ORVEL_CALL_TIMEOUT_MS", std::to_string(kLimitMs).c_str(), 1);
  test::Process device({"orvel-sim", "run"});
  device.waitForOutput("");
  for (int n = 0; n < 2; ++n) {
    const std::string failed = Sequence().run();
    test::require(failed.empty(), "the sequence does not work without a fault: " + failed);
  }
  for (const Kind* kind : Kind::all()) {
    runner.add(kind->function, [&, kind] { inject_each(*kind, static_cast<int>(runner.count()), runner.seed()); });
  }
  return runner.run([&] {
    device.signal(SIGTERM);
    test::require(device.wait() == 0, "the device has suffered");
    return std::to_string(g_faults) + " faults, " + std::to_string(g_noticed) + " noticed by the caller";
  });
}

}  // namespace
}  // namespace orvel::hostile

int main(int argc, char** argv) {
  return orvel::hostile::run(argc, argv);
}
