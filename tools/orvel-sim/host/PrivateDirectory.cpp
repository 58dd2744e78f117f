#include "tools/orvel-sim/host/PrivateDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

namespace orvel::sim {
namespace {

namespace fs = std::filesystem;

constexpr char kPrefix[] = "orvel-sim-";
constexpr char kSuffix[] = "XXXXXX";

// A descriptor that holds the lock of the directory, or -1 where another process has it or another user owns the
// directory.
int lock(const fs::path& directory) {
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) return -1;
  struct stat opened {};
  struct stat found {};
  // It may have been removed between the two, by the process that had the lock before.
  if (fstat(descriptor, &opened) == 0 && opened.st_uid == geteuid() && flock(descriptor, LOCK_EX | LOCK_NB) == 0 &&
      stat(directory.c_str(), &found) == 0 && found.st_ino == opened.st_ino) {
    return descriptor;
  }
  close(descriptor);
  return -1;
}

void removeAbandoned(const fs::path& temporary) {
  std::error_code ignored;
  for (fs::directory_iterator entry(temporary, ignored), end; !ignored && entry != end; entry.increment(ignored)) {
    const std::string name = entry->path().filename();
    if (name.rfind(kPrefix, 0) != 0 || name.size() != sizeof(kPrefix) + sizeof(kSuffix) - 2) continue;
    const int descriptor = lock(entry->path());
    if (descriptor < 0) continue;
    std::error_code failed;
    fs::remove_all(entry->path(), failed);
    close(descriptor);
  }
}

}  // namespace

PrivateDirectory::PrivateDirectory() {
  std::error_code error;
  const fs::path temporary = fs::temp_directory_path(error);
  if (error) throw std::runtime_error("TMPDIR " + std::string(std::getenv("TMPDIR")) + ": " + error.message());
  removeAbandoned(temporary);
  // Another process may lock it first and remove it as abandoned; that is rare once, let alone so often.
  constexpr int kAttempts = 100;
  for (int attempt = 0; m_lock < 0; ++attempt) {
    std::string path = temporary / (std::string(kPrefix) + kSuffix);
    if (mkdtemp(path.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path);
    m_lock = lock(path);
    m_path = path;
    if (m_lock < 0 && attempt == kAttempts) throw std::system_error(EAGAIN, std::generic_category(), "locking " + path);
  }
  setenv("ORVEL_RUNTIME_DIR", (m_path / "device").c_str(), 1);
}

PrivateDirectory::~PrivateDirectory() {
  std::error_code ignored;
  fs::remove_all(m_path, ignored);
  close(m_lock);
}

}  // namespace orvel::sim
