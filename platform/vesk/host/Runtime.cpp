#include "Runtime.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "Descriptors.h"
#include "RuntimeDirectory.h"

namespace vesk {
namespace {

// A service that has not answered for so long does not answer any more; the same limit that platforms put on their own
// watchdogs.
constexpr std::chrono::milliseconds kCallLimit{30'000};
// No call waits longer, even if the variable asks for it.
constexpr std::chrono::milliseconds kLongestCallLimit = std::chrono::hours(24);
constexpr char kCallLimitVariable[] = "ORVEL_CALL_TIMEOUT_MS";

std::atomic<bool> g_forked{false};

std::chrono::milliseconds choose_call_limit() {
  const char* text = std::getenv(kCallLimitVariable);
  if (text == nullptr || *text == '\0') return kCallLimit;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (*end == '\0' && value > 0) {
    if (value <= kLongestCallLimit.count()) return std::chrono::milliseconds(value);
    complain("%s=%s is more than a day; using %lld", kCallLimitVariable, text,
             static_cast<long long>(kLongestCallLimit.count()));
    return kLongestCallLimit;
  }
  complain("%s=%s is not a positive number of milliseconds; using %lld", kCallLimitVariable, text,
           static_cast<long long>(kCallLimit.count()));
  return kCallLimit;
}

// What keeps the runtime directory from being used, and where that is one command, what helps.
std::string directory_problem(int error) {
  constexpr char kStart[] = "; orvel-sim run starts a device";
  const std::filesystem::path directory = runtime_directory();
  const std::filesystem::path parent = directory.parent_path();
  std::error_code ignored;
  const bool exists = std::filesystem::exists(std::filesystem::symlink_status(directory, ignored));
  if ((error == ENOENT || error == EACCES) && !exists) {
    if (!std::filesystem::is_directory(parent, ignored)) return "it does not exist, nor does " + parent.string();
    if (::access(parent.c_str(), W_OK | X_OK) == 0) return std::string("it does not exist") + kStart;
    return "it does not exist, and this user may not write in " + parent.string();
  }
  switch (error) {
    case ENOTDIR:
    case ELOOP:
      return std::filesystem::is_symlink(std::filesystem::symlink_status(directory, ignored))
                 ? "it is a symbolic link, which is not followed"
                 : "it is not a directory";
    case EACCES:
      return "this user may not open it";
    case EPERM:
      return "it must belong to this user, with mode 0700";
    case ENAMETOOLONG:
      return "its path is too long";
    case ESRCH:
      return std::string("nothing serves there") + kStart;
    default:
      return std::strerror(error);
  }
}

// Every client takes some. The soft limit protects programs that use select(), which nothing here does.
void raise_descriptor_limit() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) return;
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
}

template <typename Body>
void name_the_directory(const char* purpose, const Body& body) {
  try {
    body();
  } catch (const std::system_error& error) {
    complain("%s in %s: %s", purpose, runtime_directory().c_str(), directory_problem(error.code().value()).c_str());
    throw;
  }
}

}  // namespace

Runtime& Runtime::instance() {
  static auto* const runtime = new Runtime;
  return *runtime;
}

bool Runtime::is_forked_child() {
  return g_forked;
}

Runtime::Runtime() : m_server(m_loop), m_handles(m_loop, choose_call_limit()), m_binds(m_handles) {
  ::pthread_atfork(nullptr, nullptr, [] {
    g_forked = true;
    close_remembered_descriptors();
  });
}

void Runtime::join_device() {
  name_the_directory("no device", [] {
    const UniqueFd directory = open_runtime_directory();
    if (!device_is_alive(directory.get())) check(-ESRCH);
  });
  m_loop.allow();
}

void Runtime::serve_device() {
  name_the_directory("cannot serve", [this] { m_server.serve_device(); });
  raise_descriptor_limit();
  m_loop.allow();
}

void Runtime::shutdown() {
  m_loop.stop();
  m_binds.cancel();
  for (const auto& connection : m_handles.connections()) connection->abort_call();
  m_server.close();
}

}  // namespace vesk
