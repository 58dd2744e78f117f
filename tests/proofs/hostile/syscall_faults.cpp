// One system call of the host runtime fails, the n-th use of one function with one error, while a client goes through
// everything that a process does with the runtime. Afterwards the next client of the same process works, and the
// process holds no more callbacks and descriptors than before.
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
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orvel/OrvelDelegateClient.h"
#include "support/LogRecorder.h"
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

// A function and how it fails. Each is in the list by being there.
struct Kind {
  Kind(const char* of, std::vector<int> with) : function(of), errors(std::move(with)) { all().push_back(this); }
  static std::vector<const Kind*>& all() {
    static std::vector<const Kind*> s_kinds;
    return s_kinds;
  }

  const char* function;
  std::vector<int> errors;
};

}  // namespace

// NOLINTBEGIN(bugprone-macro-parentheses,readability-inconsistent-declaration-parameter-name): types, and libc's names
#define EXPORTED extern "C" __attribute__((visibility("default")))
#define LIBCS(type, name, parameters) reinterpret_cast<type(*) parameters>(::dlsym(RTLD_NEXT, #name))
// A function that stands in for libc's, and the errors with which it fails.
#define STAND_IN(type, name, parameters, arguments, ...)     \
  EXPORTED type name parameters {                            \
    static auto* const libc = LIBCS(type, name, parameters); \
    return fails(#name) ? type(-1) : libc arguments;         \
  }                                                          \
  const Kind kind_of_##name(#name, {__VA_ARGS__});
// With one argument more, `rest`, which may be absent.
#define STAND_IN_VARIADIC(name, last, parameters, arguments, ...) \
  EXPORTED int name parameters {                                  \
    static auto* const libc = LIBCS(int, name, parameters);       \
    va_list list;                                                 \
    va_start(list, last);                                         \
    void* const rest = va_arg(list, void*);                       \
    va_end(list);                                                 \
    return fails(#name) ? -1 : libc arguments;                    \
  }                                                               \
  const Kind kind_of_##name(#name, {__VA_ARGS__});

STAND_IN(int, socket, (int a, int b, int c), (a, b, c), EMFILE, ENFILE, ENOBUFS, ENOMEM)
STAND_IN(int, socketpair, (int a, int b, int c, int* d), (a, b, c, d), EMFILE, ENFILE, ENOMEM)
STAND_IN(int, connect, (int a, const sockaddr* b, socklen_t c), (a, b, c), EAGAIN, EINTR, ENOMEM)
STAND_IN(int, bind, (int a, const sockaddr* b, socklen_t c), (a, b, c), EADDRINUSE, ENOSPC, EROFS, ENOMEM)
STAND_IN(int, listen, (int a, int b), (a, b), EADDRINUSE, ENOBUFS)
STAND_IN(int, accept4, (int a, sockaddr* b, socklen_t* c, int d), (a, b, c, d), EINTR, EMFILE, ECONNABORTED, ENOMEM)
STAND_IN(int, getsockopt, (int a, int b, int c, void* d, socklen_t* e), (a, b, c, d, e), ENOBUFS)
STAND_IN(ssize_t, sendmsg, (int a, const msghdr* b, int c), (a, b, c), EAGAIN, EPIPE, ECONNRESET, ENOBUFS, ENOMEM)
STAND_IN(ssize_t, recvmsg, (int a, msghdr* b, int c), (a, b, c), EAGAIN, ECONNRESET, ENOMEM)
STAND_IN(int, mkdir, (const char* a, mode_t b), (a, b), ENOSPC, EACCES, EROFS, ENAMETOOLONG)
STAND_IN(int, symlinkat, (const char* a, int b, const char* c), (a, b, c), ENOSPC, EEXIST, EROFS)
STAND_IN(int, renameat, (int a, const char* b, int c, const char* d), (a, b, c, d), ENOSPC, EACCES)
STAND_IN(ssize_t, readlinkat, (int a, const char* b, char* c, size_t d), (a, b, c, d), EACCES, ENOMEM)
STAND_IN(int, fstat, (int a, struct stat* b), (a, b), ENOMEM, EOVERFLOW)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"  // there is a struct of that name too
STAND_IN(int, flock, (int a, int b), (a, b), EINTR, ENOLCK)
#pragma GCC diagnostic pop
STAND_IN(int, epoll_create1, (int a), (a), EMFILE, ENOMEM)
STAND_IN(int, epoll_wait, (int a, epoll_event* b, int c, int d), (a, b, c, d), EINTR)
STAND_IN(int, poll, (pollfd * a, nfds_t b, int c), (a, b, c), EINTR, ENOMEM)
STAND_IN(int, inotify_init1, (int a), (a), EMFILE, ENFILE, ENOMEM)
STAND_IN(int, inotify_add_watch, (int a, const char* b, std::uint32_t c), (a, b, c), ENOSPC, ENOMEM)
STAND_IN_VARIADIC(open, b, (const char* a, int b, ...), (a, b, rest), EMFILE, ENFILE, EACCES, EINTR)
STAND_IN_VARIADIC(openat, c, (int a, const char* b, int c, ...), (a, b, c, rest), EMFILE, ENFILE, ENOSPC, EINTR)
STAND_IN_VARIADIC(fcntl, b, (int a, int b, ...), (a, b, rest), EMFILE, EINVAL, ENOLCK, EINTR)
// NOLINTEND(bugprone-macro-parentheses,readability-inconsistent-declaration-parameter-name)

namespace orvel::hostile {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCallLimitMs = 800;
constexpr std::size_t kMostStillOpen = 2;  // what a shutdown may leave for the next loop to close

// One life of a client, each step as far as it goes.
class Session {
 public:
  // Returns the first step that failed; empty when all worked.
  std::string run() {
    const char* const kScreen = "android.intent.action.SCREEN_ON";
    auto& client = service_apis::OrvelDelegateClient::getClient();
    expect("start", client.initialize());
    expect("query", client.isScreenOn());
    expect("publish", client.registerForDirective("faults", [](auto&&...) {}));
    expect("subscribe", client.registerForScreenStateChange([heard = m_heard](bool) { *heard = true; }));
    expect("broadcast", client.broadcastIntentWithIntKey(kScreen, "", "key", "value", 1));
    const auto limit = Clock::now() + std::chrono::milliseconds(4 * kCallLimitMs);
    while (m_failed.empty() && !*m_heard && Clock::now() < limit) std::this_thread::yield();
    expect("callback", *m_heard);
    client.shutdown();
    return m_failed;
  }

  [[nodiscard]] bool is_callback_held() const { return m_heard.use_count() != 1; }

 private:
  void expect(const char* step, bool works) {
    if (!works && m_failed.empty()) m_failed = step;
  }

  const std::shared_ptr<std::atomic<bool>> m_heard = std::make_shared<std::atomic<bool>>(false);
  std::string m_failed;
};

int g_faults = 0;
int g_noticed = 0;

// Makes the n-th use of the function fail. False when the session does not come so far.
bool inject(const char* function, int error, int n) {
  const auto descriptors = [] { return test::usageOf(::getpid()).descriptors; };
  static const std::size_t s_descriptors = descriptors();  // behind the first sessions, which work
  test::begin(std::string(function) + ' ' + std::strerror(error) + ", use " + std::to_string(n));
  fault.error = error;
  fault.left = n - 1;
  fault.function = function;
  Session broken;
  if (!broken.run().empty()) ++g_noticed;
  const bool reached = fault.left < 0;
  fault.function = nullptr;
  if (!reached) return false;
  ++g_faults;
  const std::string failed = Session().run();
  test::require(failed.empty(), "the next session does not work: " + failed);
  test::require(!broken.is_callback_held(), "a callback is still held");
  const auto limit = Clock::now() + std::chrono::seconds(1);
  while (descriptors() > s_descriptors + kMostStillOpen && Clock::now() < limit) std::this_thread::yield();
  const std::size_t open = descriptors();
  test::require(open <= s_descriptors + kMostStillOpen,
                std::to_string(open) + " descriptors, before " + std::to_string(s_descriptors));
  return true;
}

// The first uses one after the other, and then some further and further apart.
void inject_each(const Kind& kind, int most) {
  for (const int error : kind.errors) {
    for (int n = 1; inject(kind.function, error, n);) n += n < most ? 1 : n;
  }
}

int run(int argc, char** argv) {
  test::Runner runner("orvel-syscall-faults", "One system call of the host runtime fails at a time", 12);
  if (const auto status = runner.parse(argc, argv)) return *status;
  test::discard_log();
  const test::TemporaryDirectory workplace;
  ::setenv("ORVEL_RUNTIME_DIR", (workplace.path() / "device").c_str(), 1);
  ::setenv("ORVEL_CALL_TIMEOUT_MS", std::to_string(kCallLimitMs).c_str(), 1);
  test::Process device({"orvel-sim", "run"}, {}, {workplace.path() / "log"});
  device.waitForOutput("");
  for (int n = 0; n < 2; ++n) test::require(Session().run().empty(), "a session does not work without a fault");
  for (const Kind* kind : Kind::all()) {
    runner.add(kind->function, [&, kind] { inject_each(*kind, static_cast<int>(runner.count())); });
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
