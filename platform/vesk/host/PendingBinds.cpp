#include "PendingBinds.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <algorithm>
#include <csignal>

#include "Dispatch.h"
#include "RuntimeDirectory.h"

namespace vesk {
namespace {

// How soon to look again where the directory cannot tell: it does not exist, or a service exists and accepts nothing.
constexpr int kRetryMs = 200;
// How soon to see whether another directory stands at the path: a watch stays with the one that it was made for.
constexpr int kDirectoryCheckMs = 1000;
// For a service that many have waited for.
constexpr std::chrono::milliseconds kPatience{5000};
constexpr char kThreadName[] = "vesk-watch";

// Throws away what has arrived: any change is a reason to look.
void discard_events(int descriptor) {
  char events[4096];
  while (::read(descriptor, events, sizeof(events)) > 0) {
  }
}

UniqueFd watch_directory() {
  UniqueFd inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (inotify &&
      ::inotify_add_watch(inotify.get(), runtime_directory().c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) < 0) {
    inotify.reset();
  }
  return inotify;
}

}  // namespace

// Says that this thread may be inside a bind callback, and remembers what had been cancelled before.
class PendingBinds::Delivery {
 public:
  explicit Delivery(PendingBinds& binds) : m_binds(binds), m_cancels(enter(binds)) {}
  ~Delivery() {
    const std::lock_guard lock(m_binds.m_mutex);
    auto& deliverers = m_binds.m_deliverers;
    deliverers.erase(std::find(deliverers.begin(), deliverers.end(), std::this_thread::get_id()));
    m_binds.m_delivered.notify_all();
  }
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

  // How many cancel() had come by then. When there are more, what this thread was going to wait for is dropped.
  [[nodiscard]] std::uint64_t cancels_before() const { return m_cancels; }
  [[nodiscard]] bool is_cancelled() const {
    const std::lock_guard lock(m_binds.m_mutex);
    return m_binds.m_cancels != m_cancels;
  }

 private:
  static std::uint64_t enter(PendingBinds& binds) {
    const std::lock_guard lock(binds.m_mutex);
    binds.m_deliverers.push_back(std::this_thread::get_id());
    return binds.m_cancels;
  }

  PendingBinds& m_binds;
  const std::uint64_t m_cancels;
};

PendingBinds::PendingBinds(Handles& handles)
    : m_handles(handles), m_wakeup(check_errno(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

void PendingBinds::bind(const char* name, vesk_service_bind_callback callback, void* context) {
  escaped_name(name);        // throws for a name that cannot be served
  open_runtime_directory();  // throws where no service can appear
  Binds bind{{name, callback, context}};
  const Delivery delivery(*this);
  const int result = try_bind(bind, delivery, {});
  if (result != -ENOENT) {
    check(result);
    return;
  }
  const std::lock_guard lock(m_mutex);
  if (m_cancels != delivery.cancels_before()) return;
  m_waiting.splice(m_waiting.end(), bind);
  if (m_watching) {
    ::eventfd_write(m_wakeup.get(), 1);
    return;
  }
  try {
    start_watching();
  } catch (...) {
    m_waiting.pop_back();
    throw;
  }
}

// The program's signals are for its own threads; only what a fault of this one raises goes to the program's handler.
void PendingBinds::start_watching() {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT}) sigdelset(&blocked, fault);
  ::pthread_sigmask(SIG_SETMASK, &blocked, &before);
  const int result = as_error_code([&] {
    std::thread([this] { watch(); }).detach();
    return 0;
  });
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  check(result);
  m_watching = true;
}

void PendingBinds::cancel() {
  const std::lock_guard lock(m_mutex);
  m_waiting.clear();
  ++m_cancels;
  ::eventfd_write(m_wakeup.get(), 1);
  const auto is_this_thread = [](std::thread::id id) { return id == std::this_thread::get_id(); };
  if (std::any_of(m_deliverers.begin(), m_deliverers.end(), is_this_thread)) return;
  while (!m_deliverers.empty()) m_delivered.wait(m_mutex);
}

// Calls back when the service runs; else -ENOENT where no process serves the name, or the error that kept it from
// finding out.
int PendingBinds::try_bind(Binds& binds, const Delivery& delivery, std::chrono::milliseconds patience) {
  vesk_handle handle{};
  auto references = static_cast<unsigned int>(binds.size());
  const int result = as_error_code([&] {
    handle = m_handles.look_up(binds.front().name.c_str(), references, patience);
    return 0;
  });
  if (result != 0) return result;
  // The first is answered even when cancel() has come meanwhile, which waits for it.
  do {
    const Bind& bind = binds.front();
    report_throw("bind callback", [&] { bind.callback(runtime_address(), bind.context, bind.name.c_str(), handle); });
    binds.pop_front();
    --references;
  } while (!binds.empty() && !delivery.is_cancelled());
  if (references != 0) m_handles.end_lookup_reference(handle, references);
  return 0;
}

void PendingBinds::watch() {
  ::pthread_setname_np(::pthread_self(), kThreadName);
  UniqueFd inotify;
  FileId watched;
  while (true) {
    // Watch first, look afterwards: what appears in between is seen.
    const FileId directory = directory_state().id;
    if (!inotify || directory != watched) inotify = watch_directory();
    watched = directory;
    const bool again_soon = try_all();
    {
      const std::lock_guard lock(m_mutex);
      if (m_waiting.empty()) {
        m_watching = false;
        return;
      }
    }
    pollfd ready[] = {{inotify.get(), POLLIN, 0}, {m_wakeup.get(), POLLIN, 0}};
    const bool is_told = inotify && !again_soon;
    while (::poll(ready, 2, is_told ? kDirectoryCheckMs : kRetryMs) == 0 && is_told &&
           directory_state().id == watched) {
    }
    discard_events(m_wakeup.get());
    if (inotify) discard_events(inotify.get());
  }
}

// Calls back for every service that runs by now. True when it is worth looking again soon.
bool PendingBinds::try_all() {
  const Delivery delivery(*this);
  Binds untried;
  {
    const std::lock_guard lock(m_mutex);
    untried.swap(m_waiting);
  }
  bool again_soon = false;
  while (!untried.empty()) {
    Binds binds;
    const Bind first = untried.front();
    for (auto at = untried.begin(); at != untried.end();) {
      const auto bind = at++;
      if (bind->callback == first.callback && bind->name == first.name) binds.splice(binds.end(), untried, bind);
    }
    const int result = try_bind(binds, delivery, kPatience);
    const std::lock_guard lock(m_mutex);
    if (m_cancels != delivery.cancels_before()) return false;
    if (result == 0) continue;
    again_soon = again_soon || (result != -ENOENT && result != -EPERM);  // another user's: until the directory changes
    m_waiting.splice(m_waiting.end(), binds);
  }
  return again_soon;
}

}  // namespace vesk
