#include "PendingBinds.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <algorithm>
#include <utility>

#include "Dispatch.h"
#include "Runtime.h"
#include "RuntimeDirectory.h"

namespace vesk {
namespace {

// How soon to look again where the directory cannot tell: it does not exist, or a service exists and accepts nothing.
constexpr int kRetryMs = 200;

// Throws away what has arrived: any change is a reason to look, whatever it was.
void discard_events(int descriptor) {
  char events[4096];
  while (::read(descriptor, events, sizeof(events)) > 0) {
  }
}

// Watches the directory as it is now; false where there is none.
bool watch_directory(int inotify) {
  return ::inotify_add_watch(inotify, runtime_directory().c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) >= 0;
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

 private:
  static std::uint64_t enter(PendingBinds& binds) {
    const std::lock_guard lock(binds.m_mutex);
    binds.m_deliverers.push_back(std::this_thread::get_id());
    return binds.m_cancels;
  }

  PendingBinds& m_binds;
  const std::uint64_t m_cancels;
};

PendingBinds::PendingBinds(Runtime& runtime)
    : m_runtime(runtime), m_wakeup(check_errno(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

void PendingBinds::bind(const char* name, vesk_service_bind_callback callback, void* context) {
  escaped_name(name);        // throws for a name that nobody can ever serve
  open_runtime_directory();  // throws where nobody can ever appear
  Bind bind{name, callback, context};
  const Delivery delivery(*this);
  const int result = try_bind(bind);
  if (result != -ENOENT) {
    check(result);
    return;
  }
  const std::lock_guard lock(m_mutex);
  if (m_cancels != delivery.cancels_before()) return;
  m_waiting.push_back(std::move(bind));
  if (m_watching) {
    ::eventfd_write(m_wakeup.get(), 1);
    return;
  }
  try {
    std::thread([this] { watch(); }).detach();
    m_watching = true;
  } catch (...) {
    m_waiting.pop_back();
    throw;
  }
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

// Calls back when the service runs; else -ENOENT where nobody serves the name, or why that cannot be said.
int PendingBinds::try_bind(const Bind& bind) {
  vesk_handle handle{};
  const int result = as_error_code([&] {
    handle = m_runtime.look_up(bind.name.c_str());
    return 0;
  });
  if (result != 0) return result;
  report_throw("bind callback", [&] { bind.callback(m_runtime.handle(), bind.context, bind.name.c_str(), handle); });
  return 0;
}

void PendingBinds::watch() {
  const UniqueFd inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  while (true) {
    // Watch first, look afterwards: what appears in between is seen.
    const bool watched = inotify && watch_directory(inotify.get());
    const bool again_soon = try_all();
    {
      const std::lock_guard lock(m_mutex);
      if (m_waiting.empty()) {
        m_watching = false;
        return;
      }
    }
    pollfd ready[] = {{inotify.get(), POLLIN, 0}, {m_wakeup.get(), POLLIN, 0}};
    ::poll(ready, 2, watched && !again_soon ? -1 : kRetryMs);
    discard_events(m_wakeup.get());
    if (inotify) discard_events(inotify.get());
  }
}

// Calls back for every service that runs by now. True when it is worth looking again soon.
bool PendingBinds::try_all() {
  const Delivery delivery(*this);
  std::list<Bind> untried;
  {
    const std::lock_guard lock(m_mutex);
    untried.swap(m_waiting);
  }
  bool again_soon = false;
  while (!untried.empty()) {
    const int result = try_bind(untried.front());
    const std::lock_guard lock(m_mutex);
    if (m_cancels != delivery.cancels_before()) return false;
    if (result == 0) {
      untried.pop_front();
      continue;
    }
    again_soon = again_soon || (result != -ENOENT && result != -EPERM);  // another user's: until the directory changes
    m_waiting.splice(m_waiting.end(), untried, untried.begin());
  }
  return again_soon;
}

}  // namespace vesk
