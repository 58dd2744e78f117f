// The directory in which the processes of one device meet. There is no hub: what is in the directory is all there is.
//
//   .device            a device lives here while some process holds a shared lock on it
//   .socket-<pid>      where the process <pid> accepts connections; one for all the names that it serves
//   <escaped name>     a symbolic link to the socket of the process that serves the name
//
// Escaped names hold letters, digits, '_', '-' and inner '.', everything else as %XX, so no name can leave the
// directory or meet one of its own files. Whoever changes the links holds flock on the directory.
#pragma once

#include <string>

#include "Support.h"

namespace vesk {

// ORVEL_RUNTIME_DIR, else $XDG_RUNTIME_DIR/orvel, else /tmp/orvel-<uid>, as an absolute path. Read once per process.
const std::string& runtime_directory();

// Opens the directory anew, because a device that is restarted may have made it anew. Throws std::system_error: -ENOENT
// when it does not exist, -EPERM when another user could write to it or owns it.
UniqueFd open_runtime_directory();

// Opens it, made first where it is missing.
UniqueFd make_runtime_directory();

// Whether some process holds the device lock.
bool device_is_alive(int directory);

// The lock that says that a device lives here; given up with the descriptor. Kept by the open file, not by the process,
// so that asking for it disturbs nobody.
UniqueFd hold_device_lock(int directory);

// The file name that stands for a service name. Throws -EINVAL for an empty name and -ENAMETOOLONG.
std::string escaped_name(const char* name);

// Connects to the process that serves `file`, without ever waiting. Throws -ENOENT when nobody serves it, -EAGAIN when
// that process accepts nothing, -EPERM when it belongs to another user.
UniqueFd connect_to_service(int directory, const std::string& file);

// Holds flock on the directory.
class DirectoryLock {
 public:
  explicit DirectoryLock(int directory);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  int m_directory;
};

// This process's place in the directory: its listening socket and the links to it. One thread at a time.
class Seat {
 public:
  // Makes the socket at the first use, after removing what dead processes left. The directory lock must be held.
  void open(int directory);
  [[nodiscard]] bool is_open() const { return static_cast<bool>(m_listener); }
  [[nodiscard]] int listener() const { return m_listener.get(); }

  // Points `file` at this process. Throws -EADDRINUSE when another live process serves it. The directory lock must be
  // held.
  void publish(int directory, const std::string& file);

  // Removes the link unless it is another process's by now. The directory lock must be held.
  void withdraw(int directory, const std::string& file);

  // Removes the socket's file; connections that wait to be accepted hang up when the seat is destroyed. The directory
  // lock must be held.
  void remove_socket(int directory);

 private:
  UniqueFd m_listener;
  std::string m_socket_file;
};

}  // namespace vesk
