#include "Handles.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace vesk {
namespace {

std::uint64_t key(const vesk_handle& handle) {
  return (static_cast<std::uint64_t>(handle.words[1]) << 32U) | handle.words[0];
}

}  // namespace

Handles::Handles(Loop& loop, std::chrono::milliseconds call_limit)
    : m_surroundings{loop, call_limit,
                     [this](const vesk_handle& dead, bool noticed) { end_dead_lookup(dead, noticed); }} {}

vesk_handle Handles::look_up(const char* name, unsigned int references, std::chrono::milliseconds patience) {
  auto connection = OutgoingConnection::open(m_surroundings, name);
  // Before there is a handle, so that a service without room fails the lookup and does not die. A service of this
  // process cannot answer yet.
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (connection->peer() != ::getpid() && !connection->try_handshake() &&
         std::chrono::steady_clock::now() < deadline && !m_surroundings.loop.is_stopped()) {
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

std::shared_ptr<OutgoingConnection> Handles::connection(const vesk_handle& handle) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_handles.find(key(handle));
  return found == m_handles.end() ? nullptr : found->second.connection;
}

std::vector<std::shared_ptr<OutgoingConnection>> Handles::connections() {
  std::vector<std::shared_ptr<OutgoingConnection>> all;
  const std::lock_guard lock(m_mutex);
  all.reserve(m_handles.size());
  for (const auto& [number, reference] : m_handles) all.push_back(reference.connection);
  return all;
}

int Handles::acquire(const vesk_handle& handle) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_handles.find(key(handle));
  if (found == m_handles.end()) return -EINVAL;
  ++found->second.acquired;
  return 0;
}

template <typename Change>
int Handles::drop(const vesk_handle& handle, const Change& change) {
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

int Handles::release(const vesk_handle& handle) {
  return drop(handle, [](Reference& reference) {
    if (reference.acquired != 0) {
      --reference.acquired;
    } else if (reference.lookups != 0) {
      --reference.lookups;
    }
    if (reference.dead) reference.lookups = 0;
  });
}

void Handles::end_lookup_reference(const vesk_handle& handle, unsigned int count) {
  drop(handle, [count](Reference& reference) { reference.lookups -= std::min(count, reference.lookups); });
}

// A dead handle is not unbound, so the lookup's reference ends by itself; but not before the handle has been acquired
// or a link has heard of the death (`noticed`), or the death would fall between a lookup and its link.
void Handles::end_dead_lookup(const vesk_handle& handle, bool noticed) {
  drop(handle, [noticed](Reference& reference) {
    reference.dead = true;
    if (noticed || reference.acquired != 0) reference.lookups = 0;
  });
}

}  // namespace vesk
