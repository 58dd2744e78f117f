// How an outgoing connection ends, and who hears of it: its service has died, or its handle is gone.
#include "Dispatch.h"
#include "OutgoingConnection.h"

namespace vesk {

int OutgoingConnection::link_to_death(vesk_death_callback* callback) {
  std::list<DeathLink> link;
  link.emplace_back(callback);
  {
    const std::lock_guard lock(m_links_mutex);
    if (m_closed) return -EINVAL;
    m_links.splice(m_links.end(), link);
    if (!m_dead) return 0;
  }
  m_owner.loop.post_callback([self = shared_from_this()] { self->deliver_late_notices(); });
  return 0;
}

void OutgoingConnection::unlink_to_death(vesk_death_callback* callback) {
  std::list<DeathLink> unlinked;  // outlives the lock: releasing calls out
  const std::lock_guard lock(m_links_mutex);
  for (auto at = m_links.begin(); at != m_links.end();) {
    const auto link = at++;
    if (link->callback() == callback) unlinked.splice(unlinked.end(), m_links, link);
  }
}

void OutgoingConnection::close() {
  std::list<DeathLink> links;
  {
    const std::lock_guard lock(m_links_mutex);
    m_closed = true;
    links.swap(m_links);
  }
  // After the links are gone, or the loop would take this for a death; before the lock, which a call in progress holds.
  hang_up();
  {
    const std::lock_guard lock(m_mutex);
    m_bus.reset();
  }
  links.clear();
  m_exports.close();
  m_owner.loop.post([self = shared_from_this()] { self->release_watch(); });
}

// Everything the peer sent before it went is delivered before the word that it is gone. Each step may be the last one
// before the loop winds down; the next run goes on from there.
void OutgoingConnection::finish_death() {
  const auto keep_alive = shared_from_this();
  const auto callbacks = channel();
  const bool drained = !callbacks || callbacks->drain(m_owner.loop);
  if (drained) {
    {
      const std::lock_guard lock(m_mutex);
      m_bus.reset();
    }
    const std::lock_guard lock(m_links_mutex);
    m_dead = true;
  }
  if (!drained || !deliver_notices()) {
    return m_owner.loop.post_callback([keep_alive] { keep_alive->finish_death(); });
  }
  m_exports.close();
  release_watch();
  end_dead_lookup();
}

void OutgoingConnection::end_dead_lookup() {
  bool noticed = false;
  {
    const std::lock_guard lock(m_links_mutex);
    noticed = m_noticed;
  }
  m_owner.on_dead(m_handle, noticed);
}

bool OutgoingConnection::deliver_notices() {
  while (true) {
    std::list<DeathLink> link;
    {
      const std::lock_guard lock(m_links_mutex);
      if (m_links.empty()) return true;
      if (m_owner.loop.is_winding_down()) return false;
      link.splice(link.end(), m_links, m_links.begin());
      m_noticed = true;
    }
    link.front().deliver(m_handle);
  }
}

// For links to a process that is known to be dead.
void OutgoingConnection::deliver_late_notices() {
  if (deliver_notices()) return end_dead_lookup();
  m_owner.loop.post_callback([self = shared_from_this()] { self->deliver_late_notices(); });
}

void OutgoingConnection::release_watch() {
  m_watch.reset();
  if (const auto callbacks = channel()) callbacks->close();
  const auto last = std::move(m_self);
}

std::shared_ptr<CallbackChannel> OutgoingConnection::channel() {
  const std::lock_guard lock(m_mutex);
  return m_channel;
}

}  // namespace vesk
