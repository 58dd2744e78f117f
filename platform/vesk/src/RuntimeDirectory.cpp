#include "RuntimeDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "Descriptors.h"

namespace vesk {
namespace {

constexpr char kDeviceLock[] = ".device";
constexpr std::string_view kSocketPrefix = ".socket-";
constexpr int kBacklog = 128;

std::string choose_directory() {
  if (const char* chosen = std::getenv("ORVEL_RUNTIME_DIR"); chosen != nullptr && *chosen != '\0') {
    return std::filesystem::absolute(chosen).lexically_normal();
  }
  if (const char* user = std::getenv("XDG_RUNTIME_DIR"); user != nullptr && *user == '/') {
    return std::string(user) + "/orvel";
  }
  return "/tmp/orvel-" + std::to_string(::geteuid());
}

// The address of a file in an open directory: short, whatever the directory's path is.
sockaddr_un address_in(int directory, const std::string& file) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" + file;
  if (path.size() >= sizeof(address.sun_path)) throw std::system_error(ENAMETOOLONG, std::generic_category());
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

UniqueFd new_socket() {
  return UniqueFd(check_errno(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)));
}

// 0, or what connecting failed with.
int try_connect(int directory, const std::string& socket_file, UniqueFd* out) {
  UniqueFd socket = new_socket();
  const sockaddr_un address = address_in(directory, socket_file);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return -errno;
  if (out != nullptr) *out = std::move(socket);
  return 0;
}

// Only a refusal says that nobody does. A process that accepts nothing at the moment is alive, and any other failure is this
// process's own: taken for a death, it would cost a living device its socket.
bool someone_listens(int directory, const std::string& socket_file) {
  const int result = try_connect(directory, socket_file, nullptr);
  return result != -ECONNREFUSED && result != -ENOENT;
}

// The socket that a name's link points to; empty where there is no such link. A link to anywhere else is nobody's
// service.
std::string link_target(int directory, const std::string& file) {
  char target[NAME_MAX + 1];
  const ssize_t size = ::readlinkat(directory, file.c_str(), target, sizeof(target));
  if (size <= 0) return {};
  const std::string_view text(target, static_cast<std::size_t>(size));
  const bool ours = text.substr(0, kSocketPrefix.size()) == kSocketPrefix && text.find('/') == std::string_view::npos;
  return ours ? std::string(text) : std::string();
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

std::vector<std::string> files_in(int directory) {
  std::vector<std::string> files;
  UniqueFd again(check_errno(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  const std::unique_ptr<DIR, CloseDirectory> stream(::fdopendir(again.get()));
  if (!stream) throw std::system_error(errno, std::generic_category());
  again.release();  // the stream's now
  while (const dirent* entry = ::readdir(stream.get())) files.emplace_back(entry->d_name);
  return files;
}

// A killed process leaves its socket and its links behind.
void remove_leavings(int directory) {
  const std::vector<std::string> files = files_in(directory);
  for (const std::string& file : files) {
    const bool is_socket = file.compare(0, kSocketPrefix.size(), kSocketPrefix) == 0;
    if (is_socket && !someone_listens(directory, file)) ::unlinkat(directory, file.c_str(), 0);
  }
  for (const std::string& file : files) {
    const std::string target = link_target(directory, file);
    if (!target.empty() && ::faccessat(directory, target.c_str(), F_OK, 0) != 0) ::unlinkat(directory, file.c_str(), 0);
  }
}

}  // namespace

const std::string& runtime_directory() {
  static const std::string* directory = new std::string(choose_directory());  // never destroyed: exit handlers ask too
  return *directory;
}

UniqueFd open_runtime_directory() {
  UniqueFd directory(check_errno(::open(runtime_directory().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
  struct stat status {};
  check_errno(::fstat(directory.get(), &status));
  if (status.st_uid != ::geteuid() || (status.st_mode & 077U) != 0) {
    throw std::system_error(EPERM, std::generic_category());
  }
  return directory;
}

UniqueFd make_runtime_directory() {
  if (::mkdir(runtime_directory().c_str(), 0700) != 0 && errno != EEXIST) check(-errno);
  return open_runtime_directory();
}

bool device_is_alive(int directory) {
  const UniqueFd file(::openat(directory, kDeviceLock, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  if (!file) return false;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  check_errno(::fcntl(file.get(), F_OFD_GETLK, &lock));
  return lock.l_type != F_UNLCK;
}

UniqueFd hold_device_lock(int directory) {
  UniqueFd file(check_errno(::openat(directory, kDeviceLock, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)));
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  check_errno(::fcntl(file.get(), F_OFD_SETLK, &lock));
  remember_descriptor(file.get());
  return file;
}

std::string escaped_name(const char* name) {
  constexpr char kHex[] = "0123456789ABCDEF";
  if (name == nullptr || *name == '\0') throw std::system_error(EINVAL, std::generic_category());
  std::string file;
  for (const char* at = name; *at != '\0'; ++at) {
    const auto byte = static_cast<unsigned char>(*at);
    const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
                       byte == '_' || byte == '-' || (byte == '.' && at != name);
    if (plain) {
      file += *at;
    } else {
      file += {'%', kHex[byte >> 4U], kHex[byte & 0xFU]};
    }
    if (file.size() > NAME_MAX) throw std::system_error(ENAMETOOLONG, std::generic_category());
  }
  return file;
}

UniqueFd connect_to_service(int directory, const std::string& file) {
  const std::string target = link_target(directory, file);
  if (target.empty()) throw std::system_error(ENOENT, std::generic_category());
  UniqueFd socket;
  const int result = try_connect(directory, target, &socket);
  // A socket without a listener is what a dead process left: the service is absent.
  check(result == -ECONNREFUSED ? -ENOENT : result);
  ucred peer{};
  socklen_t size = sizeof(peer);
  check_errno(::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size));
  if (peer.uid != ::geteuid()) {
    complain("%s in %s is served by another user (%u)", file.c_str(), runtime_directory().c_str(), peer.uid);
    throw std::system_error(EPERM, std::generic_category());
  }
  return socket;
}

DirectoryLock::DirectoryLock(int directory) : m_directory(directory) {
  int result = 0;
  do {
    result = ::flock(m_directory, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  check_errno(result);
}

DirectoryLock::~DirectoryLock() {
  ::flock(m_directory, LOCK_UN);
}

void Seat::open(int directory) {
  if (m_listener) return;
  remove_leavings(directory);
  std::string file = std::string(kSocketPrefix) + std::to_string(::getpid());
  // Whoever had this process number before is dead.
  ::unlinkat(directory, file.c_str(), 0);
  UniqueFd listener = new_socket();
  const sockaddr_un address = address_in(directory, file);
  check_errno(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  check_errno(::listen(listener.get(), kBacklog));
  remember_descriptor(listener.get());
  m_listener = std::move(listener);
  m_socket_file = std::move(file);
}

void Seat::publish(int directory, const std::string& file) {
  const std::string served_by = link_target(directory, file);
  if (served_by == m_socket_file) return;
  if (!served_by.empty() && someone_listens(directory, served_by)) {
    throw std::system_error(EADDRINUSE, std::generic_category());
  }
  // Renamed into place, so that a reader sees the old link or the new one and never none.
  const std::string temporary = ".link-" + std::to_string(::getpid());
  ::unlinkat(directory, temporary.c_str(), 0);
  check_errno(::symlinkat(m_socket_file.c_str(), directory, temporary.c_str()));
  if (::renameat(directory, temporary.c_str(), directory, file.c_str()) != 0) {
    const int error = errno;
    ::unlinkat(directory, temporary.c_str(), 0);
    check(-error);
  }
}

void Seat::withdraw(int directory, const std::string& file) {
  if (is_open() && link_target(directory, file) == m_socket_file) ::unlinkat(directory, file.c_str(), 0);
}

void Seat::remove_socket(int directory) {
  ::unlinkat(directory, m_socket_file.c_str(), 0);
}

}  // namespace vesk
