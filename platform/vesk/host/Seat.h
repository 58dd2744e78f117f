// This process's place in the runtime directory: its socket, the links to it and the device lock.
#pragma once

#include <string>
#include <vector>

#include "RuntimeDirectory.h"
#include "Support.h"

namespace vesk {

// The files may be lost while the process lives: the directory is removed, renamed or replaced, or a cleaner takes what
// looks old. The seat knows which files it made, so that it can tell and make them again. One thread at a time; those
// who take or publish hold the directory lock.
class Seat {
 public:
  [[nodiscard]] const std::string& socket_file() const { return m_socket_file; }
  [[nodiscard]] bool serves_device() const { return static_cast<bool>(m_device_lock); }

  // Says from now on, until leave(), that a device lives in the directory.
  void serve_device(int directory);

  // Whether this is a device's seat, and another device lives in the directory in its place.
  [[nodiscard]] bool has_rival(int directory) const;

  void give_up_device();

  // Makes a socket in the directory unless this seat has one there, after removing what dead processes left. Gives the
  // listening socket when it made one; the one before, if any, is of no more use.
  UniqueFd take(int directory);

  // Points `file` at this process. Throws -EADDRINUSE when another live process serves it.
  void publish(int directory, const std::string& file);
  [[nodiscard]] bool may_publish(int directory, const std::string& file) const;

  // Removes the link unless it is another process's by now. Needs no lock: while this process listens, no other process
  // touches its links. An error code when the directory cannot be opened.
  [[nodiscard]] int withdraw(const std::string& file) const;

  // Removes links and socket and gives up the device lock. Needs no lock either.
  void leave(const std::vector<std::string>& files);

  // Whether nothing has come or gone in the directory since is_intact() was true last. Costs one system call.
  [[nodiscard]] bool is_unchanged();

  // Whether `files`, the socket and the device lock are where they were put. Looks at each.
  [[nodiscard]] bool is_intact(const std::vector<std::string>& files);

  // The next take() makes a socket anew.
  void forget_socket() { m_socket_file.clear(); }

 private:
  [[nodiscard]] bool is_taken() const { return !m_socket_file.empty(); }
  void remove_link(int directory, const std::string& file) const;
  [[nodiscard]] bool has_socket_in(int directory) const;

  std::string m_socket_file;  // empty before the first name
  FileId m_socket;
  UniqueFd m_device_lock;
  DirectoryState m_last_state;
  bool m_intact = false;
  int m_looks = 0;  // since the state changed
};

}  // namespace vesk
