// Where the device of one command lives.
#pragma once

#include <filesystem>

namespace orvel::sim {

// A runtime directory that nobody else has: this process and the programs that it starts use it from now on. It is removed
// at the end with all that is in it, and so are those of processes that were killed before they could do that.
//
// Each is locked by its process. What is locked by nobody belongs to a process that has ended, or to one that is just being
// born, which makes itself another when it finds that somebody was faster to lock its first.
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
