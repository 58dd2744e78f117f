#include "tools/orvel-sim/host/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace orvel::sim {

OutputFile::OutputFile(std::string path, bool replace) : m_path(std::move(path)) {
  constexpr mode_t kOwnersOnly = 0600;  // a recording may name the owner
  m_descriptor =
      open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | (replace ? O_TRUNC : O_EXCL), kOwnersOnly);
  if (m_descriptor >= 0) return;
  if (errno == EEXIST) throw std::runtime_error(m_path + ": exists already; --force replaces it");
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
      [[maybe_unused]] const int cut = ftruncate(m_descriptor, m_size + static_cast<off_t>(whole));
      fail(error);
    }
    written += static_cast<std::size_t>(count);
  }
  m_size += static_cast<off_t>(lines.size());
}

void OutputFile::fail(int error) const {
  throw std::runtime_error(m_path + ": cannot be written: " + std::strerror(error));
}

}  // namespace orvel::sim
