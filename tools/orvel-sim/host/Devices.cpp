#include "tools/orvel-sim/host/Devices.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <system_error>

#include "device/Shape.h"
#include "tools/cli/DeviceDirectory.h"
#include "tools/orvel-sim/host/Control.h"
#include "tools/orvel-sim/host/Namespaces.h"

namespace orvel::sim {
namespace {

namespace fs = std::filesystem;

// A device holds a lock on this file of its directory for as long as it lives.
constexpr char kLockFile[] = ".device";
constexpr mode_t kOwnersFolder = 0700;

// Where a device is served that was given neither a directory nor a name.
fs::path placeWithoutName() {
  return cli::usualDirectory().path;
}

// Beside it.
fs::path folderOfNames() {
  return placeWithoutName().string() + "-devices";
}

std::string nameOf(const fs::path& directory) {
  return directory.parent_path() == folderOfNames() ? directory.filename().string() : std::string();
}

std::int64_t changedMs(const fs::path& link) {
  struct stat status {};
  if (lstat(link.c_str(), &status) != 0) return 0;
  constexpr std::int64_t kMilliseconds = 1000;
  constexpr std::int64_t kNanoseconds = 1'000'000;
  return status.st_mtim.tv_sec * kMilliseconds + status.st_mtim.tv_nsec / kNanoseconds;
}

// The directories whose lock the process has open.
void addLocked(const fs::path& process, std::set<std::string>& directories) {
  std::error_code error;
  for (fs::directory_iterator file(process / "fd", error), end; !error && file != end; file.increment(error)) {
    std::error_code gone;
    const fs::path target = fs::read_symlink(file->path(), gone);
    if (!gone && target.filename() == kLockFile) directories.insert(target.parent_path());
  }
}

}  // namespace

std::vector<FoundDevice> runningDevices() {
  std::set<std::string> directories;
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename();
    struct stat status {};
    if (std::isdigit(static_cast<unsigned char>(name.front())) == 0) continue;
    if (stat(entry->path().c_str(), &status) == 0 && status.st_uid == geteuid()) addLocked(entry->path(), directories);
  }
  std::vector<FoundDevice> found;
  for (const std::string& directory : directories) {
    const fs::path link = fs::path(directory) / kControlName;
    const pid_t pid = serverOf(link);
    if (pid != 0 && cli::deviceLivesIn(directory))
      found.push_back({directory, nameOf(directory), pid, changedMs(link)});
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.sinceMs < b.sinceMs; });
  return found;
}

std::string directoryOfName(const std::string& name) {
  constexpr std::size_t kLongest = 64;
  const auto isLetter = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.'; };
  const bool isName = !name.empty() && name.size() <= kLongest && name.front() != '.' && name.front() != '-' &&
                      std::all_of(name.begin(), name.end(), isLetter);
  if (!isName) throw ScenarioError("a device's name is up to 64 letters, digits, '-', '_' and '.', not '" + name + "'");
  return folderOfNames() / name;
}

void chooseDevice(const std::string& word) {
  if (word.empty()) throw ScenarioError("--device: the name is empty");
  const std::string directory = word.find('/') == std::string::npos ? directoryOfName(word) : word;
  setenv("ORVEL_RUNTIME_DIR", directory.c_str(), 1);
}

std::vector<std::string> optionsFor(const std::string& directory) {
  if (directory == placeWithoutName()) return {};
  const std::string name = nameOf(directory);
  return {"-d", name.empty() ? directory : name};
}

void makeFolderOfNames() {
  const fs::path folder = folderOfNames();
  struct stat status {};
  const bool made = mkdir(folder.c_str(), kOwnersFolder) == 0 || errno == EEXIST;
  if (!made || lstat(folder.c_str(), &status) != 0) {
    throw std::runtime_error(folder.string() + ": " + std::strerror(errno));
  }
  if (!S_ISDIR(status.st_mode) || status.st_uid != geteuid() || (status.st_mode & 077U) != 0) {
    throw std::runtime_error(folder.string() + ": is not a folder of this user alone");
  }
}

std::string servingProblem(const std::string& directory) {
  std::error_code error;
  const fs::path path(directory);
  if (fs::is_symlink(fs::symlink_status(path, error))) return "it is a symbolic link, which is not followed";
  if (fs::exists(path, error) || error) return error ? error.message() : std::string();
  const fs::path parent = path.parent_path();
  if (!fs::is_directory(parent, error)) return "there is no folder " + parent.string();
  if (access(parent.c_str(), W_OK | X_OK) != 0) return parent.string() + ": " + std::strerror(errno);
  return {};
}

}  // namespace orvel::sim
