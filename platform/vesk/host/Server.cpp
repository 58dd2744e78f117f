#include "Server.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <utility>
#include <vector>

namespace vesk {
namespace {

// What the rest of the process needs; each connection takes two, one of them for its callback channel.
constexpr rlim_t kSpareDescriptors = 128;
constexpr std::uint64_t kAcceptPauseUsec = 100'000;
constexpr int kAcceptsAtOnce = 16;

// A process holds the directory's lock for a moment, so that one that is not given up is held by a process that is
// stopped.
constexpr std::chrono::milliseconds kLockPatience{2000};
constexpr std::uint64_t kSeatCheckUsec = 1'000'000;
constexpr std::uint64_t kSeatRetryUsec = 50'000;  // another process was at it
constexpr int kSeatRetries = 40;                  // before this process says so

std::size_t most_connections() {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  return files.rlim_cur <= 2 * kSpareDescriptors ? kSpareDescriptors : (files.rlim_cur - kSpareDescriptors) / 2;
}

}  // namespace

void Server::serve_device() {
  const UniqueFd directory = make_runtime_directory();
  {
    const std::lock_guard lock(m_seat_mutex);
    m_seat.serve_device(directory.get());
  }
  look_after_seat();
}

void Server::publish(const char* name, vesk_endpoint* endpoint) {
  Name entry{escaped_name(name), hold_endpoint(endpoint)};
  const std::string path = object_path(name);
  EndpointRef replaced;  // outlives the locks: releasing it calls out
  ListenerPtr fresh;
  const int result = as_error_code([&] {
    const DirectoryLock directory_lock(kLockPatience);
    const std::lock_guard lock(m_seat_mutex);
    fresh = take_seat(directory_lock.directory());
    m_seat.publish(directory_lock.directory(), entry.file);
    const std::lock_guard names_lock(m_names_mutex);
    Name& slot = m_names[path];
    replaced = std::move(slot.endpoint);
    slot = std::move(entry);
    return 0;
  });
  // Also where this name is refused: the next one finds the socket made.
  if (fresh) listen(fresh);
  look_after_seat();
  if (result == -EBUSY) {
    complain("cannot publish %s: another process has kept %s locked for %lld ms", name, runtime_directory().c_str(),
             static_cast<long long>(kLockPatience.count()));
  }
  check(result);
}

int Server::withdraw(const char* name) {
  const std::string path = object_path(name);
  EndpointRef dropped;
  int result = 0;
  {
    const std::lock_guard lock(m_seat_mutex);
    std::string file;
    {
      const std::lock_guard names_lock(m_names_mutex);
      const auto found = m_names.find(path);
      if (found == m_names.end()) return -ENOENT;
      dropped = std::move(found->second.endpoint);
      file = std::move(found->second.file);
      m_names.erase(found);
    }
    result = m_seat.withdraw(file);
  }
  // The connections are closed even if the link could not be removed.
  m_loop.post_callback([this, path] { close_connections(&path, /*notify=*/true); });
  return result == -ENOENT ? 0 : result;
}

int Server::each_connection(const char* name, const std::function<void(pid_t peer, std::uint64_t opened_us)>& found) {
  const std::string path = object_path(name);
  if (!endpoint(path)) return -ENOENT;
  for (const auto& [connection, ignored] : m_connections) {
    if (connection->is_open() && connection->path() == path) found(connection->peer(), connection->opened_us());
  }
  return 0;
}

void Server::close() {
  decltype(m_names) dropped;
  {
    const std::lock_guard lock(m_seat_mutex);
    {
      const std::lock_guard names_lock(m_names_mutex);
      dropped.swap(m_names);
    }
    std::vector<std::string> files;
    for (const auto& [path, name] : dropped) files.push_back(name.file);
    m_seat.leave(files);
  }
  m_loop.post([this] {
    if (m_listener && !is_current(*m_listener)) m_listener.reset();
    close_connections(nullptr, /*notify=*/false);
  });
}

EndpointRef Server::endpoint(const std::string& path) {
  const std::lock_guard lock(m_names_mutex);
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

// A listener where the socket had to be made, else null. It is for the caller to let it listen, without the lock.
Server::ListenerPtr Server::take_seat(int directory) {
  UniqueFd socket = m_seat.take(directory);
  if (!socket) return nullptr;
  ListenerPtr listener;
  listener.reset(new Listener{*this, m_seat.socket_file(), std::move(socket), nullptr, nullptr});
  return listener;
}

bool Server::is_current(const Listener& listener) {
  const std::lock_guard lock(m_seat_mutex);
  return m_seat.socket_file() == listener.file;
}

void Server::listen(const ListenerPtr& fresh) {
  m_loop.post([this, fresh] {
    if (!is_current(*fresh)) return;  // shut down meanwhile
    if (m_listener) accept_some(*m_listener);
    m_listener.reset();
    const auto on_connection = [](sd_event_source*, int, std::uint32_t, void* ready) {
      auto* self = static_cast<Listener*>(ready);
      self->server.accept_some(*self);
      return 0;
    };
    sd_event_source* source = nullptr;
    const int result =
        sd_event_add_io(m_loop.event(), &source, fresh->socket.get(), EPOLLIN, on_connection, fresh.get());
    if (result < 0) {
      // Processes that connect are refused, where nothing would ever answer; the next look after the seat starts anew.
      const std::lock_guard lock(m_seat_mutex);
      m_seat.forget_socket();
      check(result);
    }
    fresh->source.reset(source);
    m_listener = fresh;
  });
}

void Server::accept_some(Listener& listener) {
  for (int n = 0; n < kAcceptsAtOnce; ++n) {
    UniqueFd socket(::accept4(listener.socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
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
  const auto resume = [](sd_event_source*, std::uint64_t, void* paused) {
    sd_event_source_set_enabled(static_cast<Listener*>(paused)->source.get(), SD_EVENT_ON);
    return 0;
  };
  sd_event_source* source = nullptr;
  // A loop that spins is better than one that never accepts again.
  if (sd_event_add_time_relative(listener.server.m_loop.event(), &source, CLOCK_MONOTONIC, kAcceptPauseUsec, 0, resume,
                                 &listener) < 0) {
    return;
  }
  listener.resume.reset(source);
  sd_event_source_set_enabled(listener.source.get(), SD_EVENT_OFF);
}

// One peer gets a quarter of what there is.
bool Server::is_welcome(pid_t peer) const {
  const std::size_t most = most_connections();
  if (m_connections.size() < most / 4) return true;
  const auto has_room = [&](const auto& counts) {
    std::size_t all = 0;
    std::size_t of_peer = 0;
    for (const auto& [connection, owner] : m_connections) {
      if (!counts(*connection)) continue;
      ++all;
      if (connection->peer() == peer) ++of_peer;
    }
    return all < most && of_peer < most / 4;
  };
  // Looked at more closely only where it matters: a peer that has hung up takes no place, even before the loop notices.
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

// ---- Looking after the seat ----

void Server::look_after_seat() {
  m_loop.post([this] {
    if (!m_seat_timer) {
      const auto on_time = [](sd_event_source*, std::uint64_t, void* self) {
        static_cast<Server*>(self)->check_seat();
        return 0;
      };
      sd_event_source* source = nullptr;
      check(sd_event_add_time_relative(m_loop.event(), &source, CLOCK_MONOTONIC, kSeatCheckUsec, 0, on_time, this));
      m_seat_timer.reset(source);
    } else if (int enabled = 0; sd_event_source_get_enabled(m_seat_timer.get(), &enabled) == 0) {
      check_seat_after(kSeatCheckUsec);
    }
  });
}

void Server::check_seat_after(std::uint64_t usec) {
  sd_event_source_set_time_relative(m_seat_timer.get(), usec);
  sd_event_source_set_enabled(m_seat_timer.get(), SD_EVENT_ONESHOT);
}

void Server::check_seat() {
  ListenerPtr fresh;
  bool goes_on = true;
  const int result = as_error_code([&] {
    goes_on = mend_seat(&fresh);
    return 0;
  });
  if (fresh) listen(fresh);
  if (!goes_on) return;
  const bool is_new = result != 0 && m_failed_checks == (result == -EBUSY ? kSeatRetries : 0);
  m_failed_checks = result == 0 ? 0 : m_failed_checks + 1;
  if (is_new) {
    complain("this process cannot be reached in %s: %s", runtime_directory().c_str(),
             std::generic_category().message(-result).c_str());
  }
  check_seat_after(result == -EBUSY && m_failed_checks <= kSeatRetries ? kSeatRetryUsec : kSeatCheckUsec);
}

// False when there is nothing to look after any more.
bool Server::mend_seat(ListenerPtr* fresh) {
  const std::lock_guard lock(m_seat_mutex);
  const std::vector<std::string> files = files_to_keep();
  if (files.empty() && !m_seat.serves_device()) return false;
  if (m_seat.is_unchanged()) return true;
  if (m_seat.serves_device()) {
    make_runtime_directory();
  } else if (directory_state().id == FileId{}) {
    return true;  // until a device makes it
  }
  if (m_seat.is_intact(files)) return true;

  const DirectoryLock directory_lock(std::chrono::milliseconds(0));
  const int directory = directory_lock.directory();
  if (give_way(directory)) return true;
  if (!files.empty()) *fresh = take_seat(directory);
  for (const std::string& file : files) m_seat.publish(directory, file);
  if (m_seat.serves_device()) m_seat.serve_device(directory);
  complain("%s was replaced or cleaned; this process serves there again", runtime_directory().c_str());
  return true;
}

std::vector<std::string> Server::files_to_keep() {
  const std::lock_guard lock(m_names_mutex);
  std::vector<std::string> files;
  for (const auto& [path, name] : m_names) {
    if (!name.given_up) files.push_back(name.file);
  }
  return files;
}

// Names that another process serves since this one lost its links are that one's, for good: two devices at one path
// would take each other's place for ever. To another device a device gives all its names, so that no half of it stays.
bool Server::give_way(int directory) {
  const bool has_rival = m_seat.has_rival(directory);
  const std::lock_guard lock(m_names_mutex);
  bool gave_way = false;
  for (auto& [path, name] : m_names) {
    if (name.given_up || m_seat.may_publish(directory, name.file)) continue;
    name.given_up = gave_way = true;
    complain("another process serves %s in %s now", name.file.c_str(), runtime_directory().c_str());
    if (has_rival) break;
  }
  if (!gave_way || !has_rival) return gave_way;
  for (auto& [path, name] : m_names) name.given_up = true;
  m_seat.give_up_device();
  complain("another device has taken the place of this one in %s: only what is connected reaches it",
           runtime_directory().c_str());
  return true;
}

}  // namespace vesk
