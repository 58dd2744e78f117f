#include "tools/cli/DeviceDirectory.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "tools/cli/Text.h"

namespace orvel::cli {
namespace {

namespace fs = std::filesystem;

constexpr char kStart[] = "orvel-sim run";

// Closes it at the end of a scope.
class DirectoryFd {
 public:
  explicit DirectoryFd(int descriptor) : m_descriptor(descriptor) {}
  ~DirectoryFd() {
    if (m_descriptor >= 0) close(m_descriptor);
  }
  DirectoryFd(const DirectoryFd&) = delete;
  DirectoryFd& operator=(const DirectoryFd&) = delete;

  int get() const { return m_descriptor; }
  explicit operator bool() const { return m_descriptor >= 0; }

 private:
  const int m_descriptor;
};

std::string userCalled(uid_t uid) {
  const passwd* user = getpwuid(uid);
  return user == nullptr ? "#" + std::to_string(uid) : user->pw_name;
}

std::string temporaryDirectory() {
  return "/tmp/orvel-" + std::to_string(geteuid());
}

std::string elsewhere() {
  return "export ORVEL_RUNTIME_DIR=" + temporaryDirectory();
}

DirectoryFd openDirectory(const std::string& path) {
  return DirectoryFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// What kept it from being opened.
Problem openingProblem(const std::string& path, int error) {
  std::error_code ignored;
  switch (error) {
    case ENOENT: {
      const fs::path parent = fs::path(path).parent_path();
      if (!fs::is_directory(parent, ignored)) {
        return {"it does not exist, nor does " + parent.string(),
                "mkdir -p " + shellWord(parent) + " && orvel-sim run"};
      }
      if (access(parent.c_str(), W_OK | X_OK) == 0) return {"it does not exist", kStart};
      return {"it does not exist, and this user may not write in " + parent.string(), elsewhere()};
    }
    case ENOTDIR:
    case ELOOP:
      if (fs::is_symlink(fs::symlink_status(path, ignored))) {
        return {"it is a symbolic link, which is not followed",
                "export ORVEL_RUNTIME_DIR=\"$(readlink -f " + shellWord(path) + ")\""};
      }
      return {"it is not a directory", elsewhere()};
    case ENAMETOOLONG:
      return {"its path is too long", elsewhere()};
    case EACCES:
      return {"this user may not open it", elsewhere()};
    default:
      return {std::strerror(error), elsewhere()};
  }
}

// A device holds a lock on a file for as long as it lives.
bool deviceLivesIn(const DirectoryFd& directory) {
  const DirectoryFd file(openat(directory.get(), ".device", O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return file && fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

Problem problemOf(const std::string& path, const DirectoryFd& directory) {
  if (!directory) return openingProblem(path, errno);
  struct stat status {};
  if (fstat(directory.get(), &status) != 0) return {std::strerror(errno), elsewhere()};
  if (status.st_uid != geteuid()) {
    const std::string owner = userCalled(status.st_uid);
    return {"it belongs to " + owner + " and not to " + userCalled(geteuid()),
            "sudo -u '" + owner + "' ORVEL_RUNTIME_DIR=" + shellWord(path) + " orvelctl doctor"};
  }
  if ((status.st_mode & 077U) != 0) {
    std::array<char, 8> mode{};
    std::snprintf(mode.data(), mode.size(), "%04o", status.st_mode & 07777U);
    return {std::string("its mode is ") + mode.data() + ", which lets other users in", "chmod 700 " + shellWord(path)};
  }
  return {};
}

}  // namespace

bool isWorkstation() {
  return dlsym(RTLD_DEFAULT, "vesk_runtime_directory") != nullptr;
}

DeviceDirectory deviceDirectory() {
  const char* const chosen = std::getenv("ORVEL_RUNTIME_DIR");
  if (chosen != nullptr && *chosen != '\0') {
    std::error_code error;
    const fs::path path = fs::absolute(chosen, error);
    return {error ? chosen : path.lexically_normal(), "ORVEL_RUNTIME_DIR"};
  }
  return usualDirectory();
}

DeviceDirectory usualDirectory() {
  const char* const user = std::getenv("XDG_RUNTIME_DIR");
  if (user != nullptr && *user == '/') return {std::string(user) + "/orvel", "XDG_RUNTIME_DIR"};
  return {temporaryDirectory(), "neither ORVEL_RUNTIME_DIR nor XDG_RUNTIME_DIR"};
}

bool deviceLivesIn(const std::string& directory) {
  const DirectoryFd opened = openDirectory(directory);
  return opened && deviceLivesIn(opened);
}

Problem directoryProblem(const std::string& directory) {
  return problemOf(directory, openDirectory(directory));
}

Problem deviceProblem(const std::string& directory) {
  const DirectoryFd opened = openDirectory(directory);
  Problem problem = problemOf(directory, opened);
  if (problem.what.empty() && !deviceLivesIn(opened)) problem = {"nothing serves there", kStart};
  return problem;
}

std::string noDevice(const std::string& directory, const Problem& problem) {
  const bool starts = problem.advice == kStart;
  return "no device in " + directory + ": " + problem.what + (starts ? "; start one: " : "; try: ") + problem.advice;
}

std::vector<std::string> otherDevices(const std::string& directory) {
  std::vector<std::string> candidates = {"/run/user/" + std::to_string(geteuid()) + "/orvel", temporaryDirectory()};
  candidates.push_back(usualDirectory().path);
  std::vector<std::string> found;
  for (const std::string& candidate : candidates) {
    const bool known = candidate == directory || std::find(found.begin(), found.end(), candidate) != found.end();
    if (!known && deviceProblem(candidate).what.empty()) found.push_back(candidate);
  }
  return found;
}

pid_t serverOf(const std::string& directory, const std::string& name) {
  const DirectoryFd opened = openDirectory(directory);
  std::array<char, NAME_MAX + 1> target{};
  if (!opened || readlinkat(opened.get(), name.c_str(), target.data(), target.size() - 1) <= 0) return 0;
  constexpr std::string_view kSocket = ".socket-";
  if (std::strncmp(target.data(), kSocket.data(), kSocket.size()) != 0) return 0;
  // However long the directory's path is, this one fits into a socket address.
  const std::string path = "/proc/self/fd/" + std::to_string(opened.get()) + "/" + target.data();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return 0;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const DirectoryFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const bool gone = connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
                    (errno == ECONNREFUSED || errno == ENOENT);  // any other error comes from a socket that is served
  return gone ? 0 : std::atoi(target.data() + kSocket.size());
}

bool isStopped(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string line;
  std::getline(file, line);
  const std::size_t state = line.rfind(") ");  // behind the program's name, which may hold anything
  return state != std::string::npos && state + 2 < line.size() && (line[state + 2] == 'T' || line[state + 2] == 't');
}

}  // namespace orvel::cli
