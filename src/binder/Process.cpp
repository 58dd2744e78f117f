#include "binder/Process.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <utility>

namespace orvel::service_apis {
namespace {

// A new thread has the signal mask of the thread that makes it.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT}) sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &m_before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t m_before{};
};

thread_local bool t_is_library_thread = false;

// Atomic and under no lock: no thread of the child could unlock it.
std::atomic<bool> g_client_running{false};
std::atomic<bool> g_forked{false};

void note_fork() {
  if (g_client_running) g_forked = true;
}

}  // namespace

std::thread start_quiet_thread(const char* name, std::function<void()> body) {
  const SignalsBlocked blocked;
  return std::thread([name, body = std::move(body)] {
    pthread_setname_np(pthread_self(), name);
    body();
  });
}

std::thread start_library_thread(const char* name, std::function<void()> body) {
  return start_quiet_thread(name, [body = std::move(body)] {
    t_is_library_thread = true;
    body();
  });
}

bool on_library_thread() {
  return t_is_library_thread;
}

void set_client_running(bool running) {
  static const int registered = pthread_atfork(nullptr, nullptr, note_fork);
  static_cast<void>(registered);  // Without memory for the handler, a child goes undetected.
  g_client_running = running;
}

bool in_forked_child() {
  return g_forked;
}

}  // namespace orvel::service_apis
