#include "Runtime.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Descriptors.h"
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

// Every client takes some. The soft limit protects programs that use select(), which nothing here does.
void raise_descriptor_limit() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) return;
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
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
  ::pthread_atfork(nullptr, nullptr, [] {
    g_forked = true;
    close_remembered_descriptors();
  });
}

void Runtime::join_device() {
  name_the_directory("no device", [] {
    const UniqueFd directory = open_runtime_directory();
    if (!device_is_alive(directory.get())) check(-ESRCH);
  });
  m_loop.allow();
}

void Runtime::serve_device() {
  name_the_directory("cannot serve", [this] { m_server.serve_device(); });
  raise_descriptor_limit();
  m_loop.allow();
}

void Runtime::shutdown() {
  m_loop.stop();
  m_binds.cancel();
  std::vector<std::shared_ptr<OutgoingConnection>> connections;
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& [number, reference] : m_handles) connections.push_back(reference.connection);
  }
  for (const auto& connection : connections) connection->abort_call();
  m_server.close();
}

vesk_handle Runtime::look_up(const char* name, unsigned int references, std::chrono::milliseconds patience) {
  auto connection = OutgoingConnection::open(*this, name);
  // Before there is a handle, so that a service without room fails the lookup and does not die. A service of this process
  // cannot answer yet.
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (connection->peer() != ::getpid() && !connection->try_handshake() &&
         std::chrono::steady_clock::now() < deadline && !m_loop.is_stopped()) {
  }
  vesk_handle handle{};
  {
    const std::lock_guard lock(m_mutex);
    const std::uint64_t number = ++m_last_handle;
    m_handles[number] = {connection, 0, references, false};
    handle.words[0] = static_cast<std::uint32_t>(number);
    handle.words[1] = static_cast<std::uint32_t>(number >> 32U);
  }
  connection->watch(handle);
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
    if (found->second.acquired != 0 || found->second.lookups != 0) return 0;
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
    } else if (reference.lookups != 0) {
      --reference.lookups;
    }
    if (reference.dead) reference.lookups = 0;
  });
}

void Runtime::end_lookup_reference(const vesk_handle& handle, unsigned int count) {
  drop(handle, [count](Reference& reference) { reference.lookups -= std::min(count, reference.lookups); });
}

void Runtime::end_dead_lookup(const vesk_handle& handle, bool noticed) {
  drop(handle, [noticed](Reference& reference) {
    reference.dead = true;
    if (noticed || reference.acquired != 0) reference.lookups = 0;
  });
}

}  // namespace vesk
