#include "Server.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <utility>
#include <vector>

namespace vesk {
namespace {

// A client opens one connection for each service; these leave room for the descriptors that a process may have by
// default (1,024), each connection needing two.
constexpr std::size_t kMaxConnections = 400;
constexpr std::size_t kMaxConnectionsPerPeer = 128;
constexpr std::uint64_t kAcceptPauseUsec = 100'000;
constexpr int kAcceptsAtOnce = 16;

}  // namespace

void Server::publish(const char* name, vesk_endpoint* endpoint) {
  Name entry{escaped_name(name), std::make_shared<const EndpointHold>(endpoint)};
  const std::string path = object_path(name);
  const UniqueFd directory = open_runtime_directory();
  EndpointRef replaced;  // outlives the lock: releasing it calls out
  std::shared_ptr<Listener> fresh;
  {
    const std::lock_guard lock(m_mutex);
    const DirectoryLock directory_lock(directory.get());
    if (!m_listener) {
      fresh.reset(new Listener{*this, {}, nullptr, nullptr});
      fresh->seat.open(directory.get());
      m_listener = fresh;
    }
    m_listener->seat.publish(directory.get(), entry.file);
    Name& slot = m_names[path];
    replaced = std::move(slot.endpoint);
    slot = std::move(entry);
  }
  if (fresh) start_listening(fresh);
}

int Server::withdraw(const char* name) {
  const std::string path = object_path(name);
  EndpointRef dropped;
  {
    const std::lock_guard lock(m_mutex);
    const auto found = m_names.find(path);
    if (found == m_names.end()) return -ENOENT;
    dropped = std::move(found->second.endpoint);
    const std::string file = std::move(found->second.file);
    m_names.erase(found);
    const UniqueFd directory = open_runtime_directory();
    const DirectoryLock directory_lock(directory.get());
    if (m_listener) m_listener->seat.withdraw(directory.get(), file);
  }
  m_loop.post_callback([this, path] { close_connections(&path, /*notify=*/true); });
  return 0;
}

void Server::close() {
  decltype(m_names) dropped;
  std::shared_ptr<Listener> closed;
  {
    const std::lock_guard lock(m_mutex);
    if (!m_listener) return;
    dropped.swap(m_names);
    closed.swap(m_listener);
    as_error_code([&] {
      const UniqueFd directory = open_runtime_directory();
      const DirectoryLock directory_lock(directory.get());
      for (const auto& [path, name] : dropped) closed->seat.withdraw(directory.get(), name.file);
      closed->seat.remove_socket(directory.get());
      return 0;
    });
  }
  m_loop.post([this, closed] {
    closed->resume.reset();
    closed->source.reset();
    closed->seat = Seat();
    close_connections(nullptr, /*notify=*/false);
  });
}

EndpointRef Server::endpoint(const std::string& path) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_names.find(path);
  return found == m_names.end() ? nullptr : found->second.endpoint;
}

void Server::remove(IncomingConnection& connection) {
  const auto found = m_connections.find(&connection);
  if (found == m_connections.end()) return;
  const std::shared_ptr<IncomingConnection> removed = std::move(found->second);
  m_connections.erase(found);
  removed->close(/*notify=*/true);
}

void Server::start_listening(const std::shared_ptr<Listener>& listener) {
  listener->server.m_loop.post([listener] {
    const auto on_connection = [](sd_event_source*, int, std::uint32_t, void* ready) {
      auto* self = static_cast<Listener*>(ready);
      self->server.accept_some(*self);
      return 0;
    };
    if (!listener->seat.is_open()) return;  // shut down meanwhile
    sd_event_source* source = nullptr;
    const int result = sd_event_add_io(listener->server.m_loop.event(), &source, listener->seat.listener(), EPOLLIN,
                                       on_connection, listener.get());
    if (result < 0) {
      // Who connects is refused, where nobody would ever answer; the next name to be published starts anew.
      Server& self = listener->server;
      const std::lock_guard lock(self.m_mutex);
      if (self.m_listener == listener) self.m_listener.reset();
      listener->seat = Seat();
      check(result);
    }
    listener->source.reset(source);
  });
}

void Server::accept_some(Listener& listener) {
  for (int n = 0; n < kAcceptsAtOnce; ++n) {
    UniqueFd socket(::accept4(listener.seat.listener(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        pause_accepting(listener);
      }
      return;
    }
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != ::geteuid() ||
        !is_welcome(peer.pid)) {
      continue;
    }
    as_error_code([&] {
      auto connection = IncomingConnection::accept(*this, std::move(socket), peer.pid);
      m_connections[connection.get()] = connection;
      return 0;
    });
  }
}

// Out of descriptors: those who wait in line are taken when some are free again, and the loop does not spin meanwhile.
void Server::pause_accepting(Listener& listener) {
  sd_event_source_set_enabled(listener.source.get(), SD_EVENT_OFF);
  const auto resume = [](sd_event_source*, std::uint64_t, void* paused) {
    sd_event_source_set_enabled(static_cast<Listener*>(paused)->source.get(), SD_EVENT_ON);
    return 0;
  };
  sd_event_source* source = nullptr;
  if (sd_event_add_time_relative(listener.server.m_loop.event(), &source, CLOCK_MONOTONIC, kAcceptPauseUsec, 0, resume,
                                 &listener) >= 0) {
    listener.resume.reset(source);
  }
}

bool Server::is_welcome(pid_t peer) const {
  const auto has_room = [&](const auto& counts) {
    std::size_t all = 0;
    std::size_t of_peer = 0;
    for (const auto& [connection, owner] : m_connections) {
      if (!counts(*connection)) continue;
      ++all;
      if (connection->peer() == peer) ++of_peer;
    }
    return all < kMaxConnections && of_peer < kMaxConnectionsPerPeer;
  };
  // Looked at more closely only where it matters: who has hung up takes nobody's place, noticed or not.
  return has_room([](const auto&) { return true; }) ||
         has_room([](const auto& connection) { return !connection.has_hung_up(); });
}

void Server::close_connections(const std::string* path, bool notify) {
  std::vector<std::shared_ptr<IncomingConnection>> closed;
  for (auto at = m_connections.begin(); at != m_connections.end();) {
    if (path != nullptr && at->second->path() != *path) {
      ++at;
      continue;
    }
    closed.push_back(std::move(at->second));
    at = m_connections.erase(at);
  }
  for (const auto& connection : closed) connection->close(notify);
}

}  // namespace vesk
