#include "Runtime.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "RuntimeDirectory.h"

namespace vesk {
namespace {

// A service that has not answered for so long does not answer any more; the same limit that platforms put on their own
// watchdogs.
constexpr std::chrono::milliseconds kCallLimit{30'000};
// No call waits longer, whatever the variable says.
constexpr std::chrono::milliseconds kLongestCallLimit = std::chrono::hours(24);
constexpr char kCallLimitVariable[] = "ORVEL_CALL_TIMEOUT_MS";

std::atomic<bool> g_forked{false};

std::chrono::milliseconds choose_call_limit() {
  const char* text = std::getenv(kCallLimitVariable);
  if (text == nullptr || *text == '\0') return kCallLimit;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (*end == '\0' && value > 0) {
    if (value <= kLongestCallLimit.count()) return std::chrono::milliseconds(value);
    complain("%s=%s is more than a day; using %lld", kCallLimitVariable, text,
             static_cast<long long>(kLongestCallLimit.count()));
    return kLongestCallLimit;
  }
  complain("%s=%s is not a positive number of milliseconds; using %lld", kCallLimitVariable, text,
           static_cast<long long>(kCallLimit.count()));
  return kCallLimit;
}

std::uint64_t key(const vesk_handle& handle) {
  return (static_cast<std::uint64_t>(handle.words[1]) << 32U) | handle.words[0];
}

const char* directory_problem(int error) {
  switch (error) {
    case ENOENT:
      return "it does not exist";
    case ENOTDIR:
    case ELOOP:
      return "it is no directory";
    case EPERM:
      return "it must belong to this user, with mode 0700";
    case ESRCH:
      return "nothing serves there";
    default:
      return std::strerror(error);
  }
}

template <typename Body>
void name_the_directory(const char* purpose, const Body& body) {
  try {
    body();
  } catch (const std::system_error& error) {
    complain("%s in %s: %s", purpose, runtime_directory().c_str(), directory_problem(error.code().value()));
    throw;
  }
}

}  // namespace

Runtime& Runtime::instance() {
  static auto* const runtime = new Runtime;
  return *runtime;
}

bool Runtime::is_forked_child() {
  return g_forked;
}

Runtime::Runtime() : m_call_limit(choose_call_limit()), m_server(m_loop), m_binds(*this) {
  ::pthread_atfork(nullptr, nullptr, [] { g_forked = true; });
}

void Runtime::join_device() {
  name_the_directory("no device", [] {
    const UniqueFd directory = open_runtime_directory();
    if (!device_is_alive(directory.get())) check(-ESRCH);
  });
  m_loop.allow();
}

void Runtime::serve_device() {
  name_the_directory("cannot serve", [this] {
    const UniqueFd directory = make_runtime_directory();
    const std::lock_guard lock(m_mutex);
    if (!m_device_lock) m_device_lock = hold_device_lock(directory.get());
  });
  m_loop.allow();
}

void Runtime::shutdown() {
  m_loop.stop();
  m_binds.cancel();
  std::vector<std::shared_ptr<OutgoingConnection>> connections;
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& [number, reference] : m_handles) connections.push_back(reference.connection);
    m_device_lock.reset();
  }
  for (const auto& connection : connections) connection->abort_call();
  m_server.close();
}

vesk_handle Runtime::look_up(const char* name) {
  auto connection = OutgoingConnection::open(*this, name);
  vesk_handle handle{};
  {
    const std::lock_guard lock(m_mutex);
    const std::uint64_t number = ++m_last_handle;
    m_handles[number].connection = connection;
    handle.words[0] = static_cast<std::uint32_t>(number);
    handle.words[1] = static_cast<std::uint32_t>(number >> 32U);
  }
  connection->watch(handle);
  // sd-bus gives up a handshake after 90 s, and before the run loop is entered a client may wait for minutes for another
  // service. A service of this process cannot answer yet.
  if (!m_loop.is_this_thread() && connection->peer() != ::getpid()) connection->try_handshake();
  return handle;
}

std::shared_ptr<OutgoingConnection> Runtime::connection(const vesk_handle& handle) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_handles.find(key(handle));
  return found == m_handles.end() ? nullptr : found->second.connection;
}

int Runtime::acquire(const vesk_handle& handle) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_handles.find(key(handle));
  if (found == m_handles.end()) return -EINVAL;
  ++found->second.acquired;
  return 0;
}

template <typename Change>
int Runtime::drop(const vesk_handle& handle, const Change& change) {
  std::shared_ptr<OutgoingConnection> last;
  {
    const std::lock_guard lock(m_mutex);
    const auto found = m_handles.find(key(handle));
    if (found == m_handles.end()) return -EINVAL;
    change(found->second);
    if (found->second.acquired != 0 || found->second.lookup) return 0;
    last = std::move(found->second.connection);
    m_handles.erase(found);
  }
  last->close();
  return 0;
}

int Runtime::release(const vesk_handle& handle) {
  return drop(handle, [](Reference& reference) {
    if (reference.acquired != 0) {
      --reference.acquired;
    } else {
      reference.lookup = false;
    }
    if (reference.dead) reference.lookup = false;
  });
}

void Runtime::end_lookup_reference(const vesk_handle& handle) {
  drop(handle, [](Reference& reference) { reference.lookup = false; });
}

void Runtime::end_dead_lookup(const vesk_handle& handle, bool noticed) {
  drop(handle, [noticed](Reference& reference) {
    reference.dead = true;
    if (noticed || reference.acquired != 0) reference.lookup = false;
  });
}

}  // namespace vesk
