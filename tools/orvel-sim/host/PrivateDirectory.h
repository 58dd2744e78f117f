// Where the device of one command lives.
#pragma once

#include <filesystem>

namespace orvel::sim {

// A runtime directory of this process's own: it and the programs that it starts use it from now on. It is removed at
// the end with all that is in it, and so are those of processes that were killed before they could do that.
//
// Each is locked by its process. One without a lock belongs to a process that has ended, or to one that is just
// starting: that may lose its new directory to another's cleanup, and then makes a second one.
class PrivateDirectory {
 public:
  PrivateDirectory();  // throws std::system_error
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

 private:
  std::filesystem::path m_path;
  int m_lock = -1;
};

}  // namespace orvel::sim
