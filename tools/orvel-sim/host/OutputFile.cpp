#include "tools/orvel-sim/host/OutputFile.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace orvel::sim {

OutputFile::OutputFile(const std::string& path, bool replace, const std::string& name)
    : m_name(name.empty() ? path : name) {
  constexpr mode_t kOwnersOnly = 0600;  // a recording may name the owner
  m_descriptor =
      open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | (replace ? O_TRUNC : O_EXCL), kOwnersOnly);
  if (m_descriptor >= 0) return;
  if (errno == EEXIST) throw std::runtime_error(m_name + ": exists already; --force replaces it");
  fail(errno);
}

OutputFile::~OutputFile() {
  close(m_descriptor);
}

void OutputFile::write(const std::string& lines) {
  std::size_t written = 0;
  while (written < lines.size()) {
    const ssize_t count = ::write(m_descriptor, lines.data() + written, lines.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      const int error = errno;
      const std::size_t last = written == 0 ? std::string::npos : lines.rfind('\n', written - 1);
      const std::size_t whole = last == std::string::npos ? 0 : last + 1;
      // A pipe has no size to cut; that there was no room is what is told.
      m_size += static_cast<off_t>(whole);
      [[maybe_unused]] const int cut = ftruncate(m_descriptor, m_size);
      fail(error);
    }
    written += static_cast<std::size_t>(count);
  }
  m_size += static_cast<off_t>(lines.size());
}

void OutputFile::fail(int error) const {
  throw std::runtime_error(m_name + ": cannot be written: " + std::strerror(error));
}

void writeFile(const std::string& path, bool replace, const std::string& text) {
  ::signal(SIGXFSZ, SIG_IGN);  // a file that must not grow is an error like others
  std::error_code error;
  const std::filesystem::path old = std::filesystem::canonical(path, error);
  const std::filesystem::file_status there = std::filesystem::status(old, error);
  const bool replaces = replace && std::filesystem::is_regular_file(there);
  // It takes the place of the old one when it is whole.
  const std::string fresh = replaces ? old.string() + ".new" : path;
  OutputFile file(fresh, replace, path);
  try {
    file.write(text);
    if (!replaces) return;
    std::filesystem::permissions(fresh, there.permissions());
    std::filesystem::rename(fresh, old);
  } catch (const std::runtime_error&) {
    if (std::filesystem::is_regular_file(fresh, error)) std::filesystem::remove(fresh, error);
    throw;
  }
}

}  // namespace orvel::sim
