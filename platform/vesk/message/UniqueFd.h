// The owner of one descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace vesk {

// Closes its descriptor when it is destroyed or given another. Below zero: none. One thread at a time.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }
  int release() { return std::exchange(m_fd, -1); }
  void reset(int fd = -1) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

}  // namespace vesk
