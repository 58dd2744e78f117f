#include "RuntimeDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include "Descriptors.h"

namespace vesk {
namespace {

constexpr std::chrono::milliseconds kLockPause{5};

std::string choose_directory() {
  if (const char* chosen = std::getenv("ORVEL_RUNTIME_DIR"); chosen != nullptr && *chosen != '\0') {
    return std::filesystem::absolute(chosen).lexically_normal();
  }
  if (const char* user = std::getenv("XDG_RUNTIME_DIR"); user != nullptr && *user == '/') {
    return std::string(user) + "/orvel";
  }
  return "/tmp/orvel-" + std::to_string(::geteuid());
}

// The address of a file in an open directory: short, however long the directory's path is.
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

bool is_socket_file(std::string_view file) {
  return file.substr(0, kSocketPrefix.size()) == kSocketPrefix;
}

// Whether the process that is named by a socket's file may have ended. One of another PID namespace seems to have, so
// this is only a reason to look closer.
bool may_be_left(const std::string& socket_file) {
  const int pid = std::atoi(socket_file.c_str() + kSocketPrefix.size());
  return pid <= 0 || pid == ::getpid() || (::kill(pid, 0) != 0 && errno == ESRCH);
}

FileId id_in(const struct stat& status) {
  return {status.st_dev, status.st_ino};
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

FileId id_of(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 ? id_in(status) : FileId{};
}

FileId id_of(int directory, const std::string& file) {
  struct stat status {};
  return ::fstatat(directory, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 ? id_in(status) : FileId{};
}

DirectoryState directory_state() {
  struct stat status {};
  if (::lstat(runtime_directory().c_str(), &status) != 0) return {};
  return {id_in(status), status.st_mtim};
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

UniqueFd listen_on(int directory, const std::string& file) {
  UniqueFd listener = new_socket();
  const sockaddr_un address = address_in(directory, file);
  check_errno(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  check_errno(::listen(listener.get(), SOMAXCONN));
  remember_descriptor(listener.get());
  return listener;
}

std::string link_target(int directory, const std::string& file) {
  char target[NAME_MAX + 1];
  const ssize_t size = ::readlinkat(directory, file.c_str(), target, sizeof(target));
  if (size <= 0) return {};
  const std::string_view text(target, static_cast<std::size_t>(size));
  return is_socket_file(text) && text.find('/') == std::string_view::npos ? std::string(text) : std::string();
}

// Only a refusal says that no process does. A process that accepts nothing at the moment is alive, and any other
// failure is this process's own: taken for a death, it would cost a living device its socket. That holds for a missing
// /proc too, so that whether the file is there is asked without it.
bool someone_listens(int directory, const std::string& socket_file) {
  return id_of(directory, socket_file) != FileId{} && try_connect(directory, socket_file, nullptr) != -ECONNREFUSED;
}

// Connects to no living process's socket, which would have to deal with it.
void remove_leavings(int directory) {
  const std::vector<std::string> files = files_in(directory);
  for (const std::string& file : files) {
    if (is_socket_file(file) && may_be_left(file) && !someone_listens(directory, file)) {
      ::unlinkat(directory, file.c_str(), 0);
    }
  }
  for (const std::string& file : files) {
    const std::string target = link_target(directory, file);
    if (!target.empty() && ::faccessat(directory, target.c_str(), F_OK, 0) != 0) ::unlinkat(directory, file.c_str(), 0);
  }
}

// The lock is tried and not waited for: a wait for it has no limit. The directory is opened anew each time, because it
// may be replaced meanwhile.
DirectoryLock::DirectoryLock(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (true) {
    m_directory = open_runtime_directory();
    if (::flock(m_directory.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) check(-errno);
    } else if (directory_state().id == id_of(m_directory.get())) {
      return;
    }
    if (std::chrono::steady_clock::now() >= deadline) check(-EBUSY);
    std::this_thread::sleep_for(kLockPause);
  }
}

// For the open file, which a process that another thread forks meanwhile shares.
DirectoryLock::~DirectoryLock() {
  ::flock(m_directory.get(), LOCK_UN);
}

}  // namespace vesk
