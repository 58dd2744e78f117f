// The directory in which the processes of one device meet. There is no hub: what is in the directory is all there is.
//
//   .device                   a device lives here while some process holds a shared lock on it
//   .socket-<pid>-<random>    where a process accepts connections; one for all the names that it serves
//   <escaped name>            a symbolic link to the socket of the process that serves the name
//
// Escaped names hold letters, digits, '_', '-' and inner '.', everything else as %XX, so no name can leave the
// directory or meet one of its own files. A process that publishes a name holds flock on the directory.
#pragma once

#include <chrono>
#include <ctime>
#include <string>
#include <string_view>

#include "Support.h"

namespace vesk {

constexpr char kDeviceLock[] = ".device";
constexpr std::string_view kSocketPrefix = ".socket-";

// ORVEL_RUNTIME_DIR, else $XDG_RUNTIME_DIR/orvel, else /tmp/orvel-<uid>, as an absolute path. Read once per process.
const std::string& runtime_directory();

// Opens the directory anew, because a device that is restarted may have made it anew. Throws std::system_error: -ENOENT
// when it does not exist, -EPERM when another user could write to it or owns it.
UniqueFd open_runtime_directory();

// Opens it, made first where it is missing.
UniqueFd make_runtime_directory();

// Which file it is, under any name. All zero for none.
struct FileId {
  dev_t device = 0;
  ino_t number = 0;

  bool operator==(const FileId& other) const { return device == other.device && number == other.number; }
  bool operator!=(const FileId& other) const { return !(*this == other); }
};
FileId id_of(int file);
FileId id_of(int directory, const std::string& file);  // follows no link

// What stands at the directory's path, and when an entry last came or went. Costs one system call.
struct DirectoryState {
  FileId id;
  timespec changed{};

  bool operator==(const DirectoryState& other) const {
    return id == other.id && changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
  }
};
DirectoryState directory_state();

// Whether some process holds the device lock.
bool device_is_alive(int directory);

// The lock that says that a device lives here; given up with the descriptor. Kept by the open file, not by the process,
// so that asking for it disturbs no process.
UniqueFd hold_device_lock(int directory);

// The file name that stands for a service name. Throws -EINVAL for an empty name and -ENAMETOOLONG.
std::string escaped_name(const char* name);

// Connects to the process that serves `file`, without ever waiting. Throws -ENOENT when no process serves it, -EAGAIN
// when that process accepts nothing, -EPERM when it belongs to another user.
UniqueFd connect_to_service(int directory, const std::string& file);

// A socket that listens on `file`, which must not exist.
UniqueFd listen_on(int directory, const std::string& file);

// The socket that a name's link points to; empty where there is no such link. A link to anywhere else names no service.
std::string link_target(int directory, const std::string& file);

// Whether the process that made this socket lives. What it has not accepted yet, this does not wait for.
bool someone_listens(int directory, const std::string& socket_file);

// Removes the sockets and links that killed processes left.
void remove_leavings(int directory);

// Holds flock on the directory that stands at the path.
class DirectoryLock {
 public:
  // Throws -EBUSY when another process holds it for longer than `patience`, and what open_runtime_directory() throws.
  explicit DirectoryLock(std::chrono::milliseconds patience);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

  [[nodiscard]] int directory() const { return m_directory.get(); }

 private:
  UniqueFd m_directory;
};

}  // namespace vesk
